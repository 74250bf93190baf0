// sfber::SfBerComponentEncoder builds BER data in a buffer it owns.
//
// The encoder is also a component over its own buffer: the navigation of
// SfBerComponent (SetItem, FirstItem, NextItem) moves its write cursor, and
// every insert operation inserts at that cursor rather than only appending.
// A caller can therefore write content first and put a length in front of
// it afterwards, or insert and delete items in the middle of what is there.
//
// Identifiers are single octets (class bits, constructed bit and tag number
// together: 0x02 INTEGER, 0x30 SEQUENCE, 0x63 [APPLICATION 3] constructed).
// Lengths use the short form below 128 and the long form up to 4 octets
// otherwise; the indefinite form is never produced.
#pragma once

#include <cstddef>
#include <string>

#include "sf/ber/sfbercomponent.h"

namespace sf {
struct Buffer;
}

namespace sfber {

class SfBerComponentEncoder : public SfBerComponent {
 public:
  SfBerComponentEncoder();
  // Deep copies: the copy owns a buffer of its own with the same bytes.
  SfBerComponentEncoder(const SfBerComponentEncoder& other);
  SfBerComponentEncoder& operator=(const SfBerComponentEncoder& other);
  ~SfBerComponentEncoder() override;

  // A new buffer holding a copy of the encoding; the caller owns it.
  sf::Buffer* getBuffer() const;
  // The encoder's own buffer, still owned by the encoder.
  const sf::Buffer* getROBuffer() const { return own; }

  // Writes tag, then (with encodeLength) the length len, then the bytes.
  // Without encodeLength the bytes must begin with their own length octets.
  void InsertChunk(int tag, const void* data, size_t len, bool encodeLength = true);
  // Writes tag and then the top-level items of comp, each re-encoded with
  // this encoder's tag and length forms and its content copied unchanged;
  // with encodeLength the total is put in front as the new item's length.
  // comp must be validated (or trusted); it may be this encoder itself.
  void InsertChunk(int tag, const SfBerComponent& comp, bool encodeLength = true);
  void InsertSet(const SfBerComponent& comp, int tag) { InsertChunk(tag, comp, true); }
  void InsertInteger(int value, int tag = 0x02);
  void InsertOctetString(std::string value, int tag = 0x04);
  // Removes the whole item (identifier, length, content) at the cursor; the
  // cursor then rests on the item that followed.
  void DeleteItem();

  // The encoding steps; each inserts at the cursor and returns the number of
  // octets written. _encodeTag throws Xber TAG_OUT_OF_BOUNDS above 0xFF.
  size_t _encodeTag(int tag);
  size_t _encodeLength(size_t len);
  // Length and content of a two's-complement integer. The content length is
  // chosen from the magnitude, so a negative value whose magnitude fills its
  // top bit gets one octet more than it needs (-128 is FF 80).
  size_t _encodeInteger(int value);

 private:
  void write(const void* p, size_t n);
  void erase(size_t n);
  void reset();

  sf::Buffer* own;
};

}  // namespace sfber
