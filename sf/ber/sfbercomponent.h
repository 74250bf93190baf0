// sfber::SfBerComponent, a validating read-only view over BER data.
//
// A component covers a stretch of an sf::Buffer (start offset and length)
// holding a sequence of BER items (identifier, length, content). The stretch
// is validated once, with everything nested in it, against the universal
// types; after that a cursor moves over the top-level items and typed
// accessors read the item under it. Nested constructed items are read through a new component over
// their content (GetSequence, GetConstructedData, or the three-argument
// constructor).
//
// Only definite lengths and single-octet identifiers are accepted. Failures
// throw sf::Xber after the throw-site record; rejections are logged at the
// component's error level and the steps of validation at its info level
// (BerOptions).
//
// The buffer is not owned and must outlive every component over it. A
// component is used by one thread at a time.
#pragma once

#include <cstddef>
#include <string>

namespace sf {
struct Buffer;
}

namespace sfber {

class SfBerComponentEncoder;

// A component's limits and log levels. The library's start-up fills the
// process's options from the configuration keys named here; a program
// without it gets these defaults unless it sets its own.
struct BerOptions {
  int maxLength = 65535;  // largest item length; below 1 no limit (proxy.*.maxlength)
  int maxDepth = 1024;    // deepest nesting; the stretch is level 1 (sf.ber.maxdepth)
  int logErrorLevel = 4;  // level of rejections (sf.ber.logerrorlevel)
  int logInfoLevel = 8;   // level of validation steps (sf.ber.loginfolevel)
};

class SfBerComponent {
 public:
  // The options every component starts with. The first component made fixes
  // them for the life of the process: later calls change nothing.
  static void SetProcessOptions(const BerOptions& options);

  // Unassigned; the process's options.
  SfBerComponent();
  // A view over length bytes at start, trusted without validation: for the
  // content of an item of a component that was validated already.
  SfBerComponent(sf::Buffer* pdu, unsigned start, size_t length);
  // Copies are second views over the same buffer.
  SfBerComponent(const SfBerComponent&) = default;
  SfBerComponent& operator=(const SfBerComponent&) = default;
  virtual ~SfBerComponent() = default;

  // This component's options, all four at once.
  void SetOptions(const BerOptions& options);
  BerOptions GetOptions() const;
  // Copies maxLength, maxDepth and the two log levels.
  void CopySettings(const SfBerComponent& other);
  // Resets both flags, the depth and the options to the process's.
  void ClearSettings();
  // Points the component at a stretch; it must be validated before use.
  void AssignPDU(sf::Buffer* pdu, unsigned start, size_t length);
  // Largest acceptable item length; below 1 means no limit.
  void SetMaxLength(int n) { maxLength = n; }
  // Deepest acceptable nesting of validation (the stretch itself is the
  // first level). Validation keeps its open levels on the heap, not the
  // stack, so any limit is safe.
  void SetMaxDepth(int n) { maxDepth = n; }

  // Validates the whole stretch. Throws Xber: NO_BER_DEFINED without a
  // buffer, INVALID_LENGTH when the buffer changed size or is too short,
  // BER_NOT_VALIDATED when an item breaks a rule, and the structural codes
  // (INSUFFICENT_DATA, LENGTH_OUT_OF_BOUNDS, TOO_DEEP) where they are found.
  void ValidateStructure();

  // Navigation; each needs a validated component (else BER_NOT_VALIDATED).
  // Identifiers are returned with the constructed bit (0x20) cleared; 0
  // means "no such item".
  int SetItem(unsigned n);  // item n, from 1; INVALID_INDEX if absent
  int FirstItem() { return SetItem(1); }
  int NextItem(unsigned k = 1);  // 0, cursor kept, if fewer than k follow

  int GetItemIdentifier();
  int GetItemIdentifier(unsigned n);
  int GetItemTagType();  // class bits: 0x00, 0x40, 0x80 or 0xC0
  int GetItemTagType(unsigned n);
  int GetItemTag();  // tag number, 0 to 30
  int GetItemTag(unsigned n);
  // Length of the current item's value: a primitive item's length, or for a
  // constructed item the sum of its parts' lengths.
  size_t GetItemLength();
  // The same for item n. With allowUnvalidated, an unvalidated component
  // instead reports the raw length of the item at its start, read from as
  // much of the buffer as there is (for sizing a PDU still being read).
  size_t GetItemLength(unsigned n, bool allowUnvalidated = false);
  // The current item's identifier octet (constructed bit kept) and where its
  // content lies, in one read: the step of a walk over every item.
  int GetItemHeader(unsigned* contentOffset, size_t* contentLength) const;
  // Number of length octets after the first one, for the item at start.
  size_t GetLengthAdditionalSize();

  // Accessors of the current item (forms with an item number select it
  // first). See docs/ber.md for the types each accepts.
  SfBerComponent GetSequence();
  SfBerComponent GetSequence(unsigned n);
  // The same operation and check as GetSequence: a universal SET is refused.
  SfBerComponent GetSet();
  SfBerComponent GetSet(unsigned n);
  int GetInteger();
  int GetInteger(unsigned n);
  std::string GetOctetString();
  std::string GetOctetString(unsigned n);
  // Replaces out's contents with the string's octets; returns their count.
  size_t GetOctetString(sf::Buffer& out);
  // Replaces out's contents with the bit string's data octets (without the
  // count of unused bits) and returns the unused bits of the last octet.
  unsigned GetBitString(sf::Buffer& out);
  // The object identifier in dotted decimal, such as "2.5.4.3".
  std::string GetObjectIdent();
  std::string GetObjectIdent(unsigned n);
  // Replaces out's contents with the content octets of a constructed item
  // of any class (SET included); returns their count.
  size_t GetConstructedData(sf::Buffer& out);

  // Low-level readers: read at *pos, within the stretch and the buffer, and
  // advance *pos. GetValueLength returns a signed 32-bit value in a size_t:
  // -1 (all bits set) for the indefinite form.
  int GetValueTag(unsigned* pos) const;
  size_t GetValueLength(unsigned* pos) const;

  // The view itself.
  sf::Buffer* GetPDU() const { return pdu; }
  unsigned GetStart() const { return start; }
  size_t GetLength() const { return length; }
  bool IsValidated() const { return validated; }
  unsigned GetItemOffset() const { return cursor; }  // offset of the current item
  int GetItemIndex() const { return itemIndex; }
  int GetDepth() const { return depth; }
  int GetMaxLength() const { return maxLength; }
  int GetMaxDepth() const { return maxDepth; }
  // Offset of the item at which the last validation stopped.
  unsigned GetErrorOffset() const { return errorOffset; }

 protected:
  friend class SfBerComponentEncoder;
  // Validates the items of dataLen octets at *pos, and everything they
  // contain, against the universal types; identifier 256 (also 16 and 17)
  // accepts any item, another value only items with that identifier octet.
  // On success *pos is moved past them.
  bool IsValidStructure(unsigned* pos, size_t dataLen, int identifier);

  // Helpers shared with the encoder.
  void requireValidated() const;
  size_t readLimit() const;  // end of what may be read: stretch and buffer
  const unsigned char* bytes() const;
  // Reads the current item's header; *content receives its content offset.
  // Throws INVALID_LENGTH for a negative length and INSUFFICENT_DATA when
  // the content runs past the readable end.
  int readItem(unsigned at, unsigned* content, size_t* len) const;
  size_t itemLength();
  void copyParts(unsigned content, size_t len, sf::Buffer& out, bool bitString,
                 unsigned* unusedBits);

  bool validated;
  bool hasPdu;
  sf::Buffer* pdu;
  size_t length;
  unsigned start;
  size_t bufferSize;
  unsigned cursor;
  int itemIndex;
  int depth;
  int maxLength;
  int maxDepth;
  int logErrorLevel;
  int logInfoLevel;
  unsigned errorOffset;
};

}  // namespace sfber
