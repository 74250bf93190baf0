// sfber::SfBerComponent: validation, navigation and accessors.
#include "sf/ber/sfbercomponent.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/sflib.h"

namespace sfber {

using sf::Buffer;
using sf::Xber;
namespace Ber = sf::Ber;

namespace {

// Process-wide settings, read once on first use; every component copies them.
struct Settings {
  int maxLength;
  int maxDepth;
  int logErrorLevel;
  int logInfoLevel;
};

const Settings& processSettings() {
  static const Settings settings{
      sf::getVarInt("proxy.*.maxlength", 65535), sf::getVarInt("sf.ber.maxdepth", 1024),
      sf::getVarInt("sf.ber.logerrorlevel", 4), sf::getVarInt("sf.ber.loginfolevel", 8)};
  return settings;
}

// Writes the throw-site record and throws; kept out of line so that the
// readers on the hot path stay small.
[[noreturn]] __attribute__((noinline, cold)) void berThrow(const char* site, const char* text,
                                                           const char* file, int line,
                                                           Ber::ErrorType e) {
  sf::sfi_throwsite(site, text, file, line);
  throw Xber(e);
}

}  // namespace

// Formats and writes one log record. Out of line, so that the checks that
// log stay small enough to inline into the validation loop.
__attribute__((noinline, cold))
SF_PRINTF_LIKE(4, 5) static void berLog(int level, const char* file, int line, const char* fmt,
                                        ...) {
  char text[4096];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  sf::sfi_log(level, 0, text, file, line, 0);
}

// SF_LOG with the formatting kept out of the caller.
#define BER_LOG(level, ...)                                                  \
  do {                                                                       \
    if (::sf::sfi_on(level)) berLog(level, __FILE__, __LINE__, __VA_ARGS__); \
  } while (0)

// The record shows the constructing expression as "Xber( Ber::CODE )".
#define BER_FAIL(site, code) berThrow(site, "Xber( Ber::" #code " )", __FILE__, __LINE__, Ber::code)

// A length read by GetValueLength is a signed 32-bit value carried in a
// size_t: the indefinite form and over-long encodings come back negative.
static inline bool negativeLength(size_t len) {
  return static_cast<std::int64_t>(len) < 0;
}

// The readers below are the hot path of validation and navigation: they are
// file-local so that they inline, and take the data pointer and the end of
// what may be read, fetched once per loop.
static inline const unsigned char* dataOf(const Buffer* b) {
  return reinterpret_cast<const unsigned char*>(b->data);
}

// The end of the stretch, clipped to the buffer.
static inline size_t limitOf(const Buffer* b, unsigned start, size_t length) {
  const size_t size = b ? b->size() : 0;
  if (start >= size) return start;
  const size_t rest = size - start;
  return start + (length < rest ? length : rest);
}

[[noreturn]] __attribute__((noinline, cold)) static void multiByteTag(int octet, unsigned pos,
                                                                      int level) {
  BER_LOG(level, "multi-byte tag found (%d) at offset %d", octet, static_cast<int>(pos));
  BER_FAIL("taglen", BER_NOT_VALIDATED);
}

static inline int tagAt(const unsigned char* p, size_t limit, unsigned* pos, int errorLevel) {
  if (*pos >= limit) BER_FAIL("insufdat", INSUFFICENT_DATA);
  const int octet = p[*pos];
  if ((octet & 0x1F) == 0x1F) multiByteTag(octet, *pos, errorLevel);
  ++*pos;
  return octet;
}

static inline size_t lengthAt(const unsigned char* p, size_t limit, unsigned* pos, int maxLength) {
  if (*pos >= limit) BER_FAIL("insufdat", INSUFFICENT_DATA);
  const unsigned first = p[(*pos)++];
  std::int32_t value;
  if (first < 0x80) {
    value = static_cast<std::int32_t>(first);
  } else if (first == 0x80) {
    value = -1;  // indefinite
  } else {
    const unsigned n = first & 0x7F;
    if (n > 8) BER_FAIL("lenbound", LENGTH_OUT_OF_BOUNDS);
    // Big-endian; a value that does not fit in 31 bits is refused, never
    // wrapped (a five-octet 0x0100000003 is not 3, and 0xFFFFFFFF is not
    // the indefinite length).
    std::uint32_t v = 0;
    for (unsigned i = 0; i < n; ++i) {
      if (*pos >= limit) BER_FAIL("insufdat", INSUFFICENT_DATA);
      if (v > 0x7FFFFF) BER_FAIL("lenbound", LENGTH_OUT_OF_BOUNDS);
      v = (v << 8) | p[(*pos)++];
    }
    if (v > 0x7FFFFFFF) BER_FAIL("lenbound", LENGTH_OUT_OF_BOUNDS);
    value = static_cast<std::int32_t>(v);
  }
  // The indefinite length (negative) passes this bound on purpose; the
  // validator refuses it where it is not allowed.
  if (maxLength >= 1 && value > maxLength) BER_FAIL("lenbound", LENGTH_OUT_OF_BOUNDS);
  return static_cast<size_t>(static_cast<std::int64_t>(value));
}

// An item's header at `at`, for navigation and accessors: its content must
// have a definite length and lie inside what may be read.
static inline int itemAt(const unsigned char* p, size_t limit, unsigned at, unsigned* content,
                         size_t* len, int errorLevel, int maxLength) {
  unsigned pos = at;
  const int ident = tagAt(p, limit, &pos, errorLevel);
  const size_t l = lengthAt(p, limit, &pos, maxLength);
  if (negativeLength(l)) BER_FAIL("invlen", INVALID_LENGTH);
  if (l > limit - pos) BER_FAIL("insufdat", INSUFFICENT_DATA);
  *content = pos;
  *len = l;
  return ident;
}

#define BER_REQUIRE_VALIDATED()                              \
  do {                                                       \
    if (!validated) BER_FAIL("bervalid", BER_NOT_VALIDATED); \
  } while (0)

// Universal tag numbers of the character and octet string types, whose
// constructed form is the concatenation of primitive parts.
static inline bool isStringTag(int tagNo) {
  return tagNo == 4 || tagNo == 7 || tagNo == 12 || (tagNo >= 18 && tagNo <= 30);
}

// ---------------------------------------------------------------------------
// Construction and settings

SfBerComponent::SfBerComponent()
    : validated(false),
      hasPdu(false),
      pdu(nullptr),
      length(0),
      start(0),
      bufferSize(0),
      cursor(0),
      itemIndex(1),
      depth(0),
      errorOffset(0) {
  ClearSettings();
}

SfBerComponent::SfBerComponent(Buffer* pdu_, unsigned start_, size_t length_) : SfBerComponent() {
  AssignPDU(pdu_, start_, length_);
  cursor = start_;
  itemIndex = 1;
  validated = true;
}

void SfBerComponent::ClearSettings() {
  validated = false;
  hasPdu = false;
  depth = 0;
  const Settings& s = processSettings();
  maxLength = s.maxLength;
  SetMaxDepth(s.maxDepth);
  logErrorLevel = s.logErrorLevel;
  logInfoLevel = s.logInfoLevel;
}

void SfBerComponent::CopySettings(const SfBerComponent& other) {
  maxLength = other.maxLength;
  maxDepth = other.maxDepth;
  logErrorLevel = other.logErrorLevel;
  logInfoLevel = other.logInfoLevel;
}

void SfBerComponent::AssignPDU(Buffer* pdu_, unsigned start_, size_t length_) {
  hasPdu = true;
  pdu = pdu_;
  start = start_;
  length = length_;
  bufferSize = pdu_ ? pdu_->size() : 0;
  depth = 0;
  validated = false;
}

// ---------------------------------------------------------------------------
// Low-level readers

const unsigned char* SfBerComponent::bytes() const {
  return dataOf(pdu);
}

size_t SfBerComponent::readLimit() const {
  return limitOf(pdu, start, length);
}

void SfBerComponent::requireValidated() const {
  BER_REQUIRE_VALIDATED();
}

int SfBerComponent::GetValueTag(unsigned* pos) const {
  if (!hasPdu || !pdu) BER_FAIL("noberdef", NO_BER_DEFINED);
  return tagAt(dataOf(pdu), limitOf(pdu, start, length), pos, logErrorLevel);
}

size_t SfBerComponent::GetValueLength(unsigned* pos) const {
  if (!hasPdu || !pdu) BER_FAIL("noberdef", NO_BER_DEFINED);
  return lengthAt(dataOf(pdu), limitOf(pdu, start, length), pos, maxLength);
}

// ---------------------------------------------------------------------------
// Validation

void SfBerComponent::ValidateStructure() {
  validated = false;
  errorOffset = start;
  if (!hasPdu || !pdu) BER_FAIL("noberdef", NO_BER_DEFINED);
  if (bufferSize != pdu->size()) BER_FAIL("invallen", INVALID_LENGTH);
  if (pdu->size() < static_cast<size_t>(start) + length) BER_FAIL("invallen", INVALID_LENGTH);
  unsigned pos = start;
  if (!IsValidStructure(&pos, length, 256) || pos != static_cast<size_t>(start) + length) {
    BER_FAIL("bervalid", BER_NOT_VALIDATED);
  }
  validated = true;
  cursor = start;
  itemIndex = 1;
}

bool SfBerComponent::IsValidStructure(unsigned* pos, size_t dataLen, int identifier) {
  ++depth;
  if (depth > maxDepth) {
    if (maxDepth < kMaxNesting)
      BER_LOG(logErrorLevel,
              ": HINT: increase sf.ber.maxdepth(%d) to greater than (%d). IsValidStructure",
              maxDepth, depth);
    else
      BER_LOG(logErrorLevel, ": nesting deeper than %d levels is never accepted. IsValidStructure",
              kMaxNesting);
    SF_THROW("IsValidStructure", Xber(Ber::TOO_DEEP));
  }
  bool ok;
  try {
    ok = IsValidStructure_internal(pos, dataLen, identifier);
  } catch (...) {
    // The depth is left raised: AssignPDU and ClearSettings reset it.
    BER_LOG(3, "IsValidStructure: caught unexpected exception");
    throw;
  }
  --depth;
  return ok;
}

// Universal identifiers whose checker accepts every item: primitive content
// skipped, constructed content left to the construction check. Kept in step
// with CheckUniversalType.
static const struct AcceptOnly {
  bool table[256];
  constexpr AcceptOnly() : table() {
    for (int tagNo : {4, 7, 11, 12, 14, 15, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30}) {
      table[tagNo] = true;
      table[tagNo | 0x20] = true;
    }
    table[0x30] = true;  // SEQUENCE and SET: constructed only
    table[0x31] = true;
  }
  bool operator[](int ident) const { return table[ident]; }
} kAcceptOnly;

bool SfBerComponent::IsValidStructure_internal(unsigned* pos, size_t dataLen, int identifier) {
  if (dataLen < 2) return false;
  const unsigned pos0 = *pos;
  unsigned cur = pos0;
  const unsigned char* const data = dataOf(pdu);
  const size_t limit = limitOf(pdu, start, length);
  const bool acceptAny = identifier == 256 || identifier == 16 || identifier == 17;
  const int errorLevel = logErrorLevel;
  const int maxLen = maxLength;
  // With tracing off, the types whose checker only accepts (and skips a
  // primitive item's content) are handled here without the call.
  const bool tracing = sf::sfi_on(logInfoLevel);
  for (;;) {
    if (static_cast<size_t>(cur - pos0) + 2 > dataLen) BER_FAIL("insufdat", INSUFFICENT_DATA);
    errorOffset = cur;
    const int ident = tagAt(data, limit, &cur, errorLevel);
    const size_t len = lengthAt(data, limit, &cur, maxLen);
    // For a negative length this sum wraps below dataLen: the content check
    // of an indefinite constructed item then runs until it meets the
    // end-of-contents item, which ends it with false.
    if (static_cast<size_t>(cur - pos0) + len > dataLen) BER_FAIL("insufdat", INSUFFICENT_DATA);
    const bool negative = negativeLength(len);
    // Content must also lie inside what may be read, whatever the enclosing
    // (possibly indefinite) length claimed.
    if (!negative && len > limit - cur) BER_FAIL("insufdat", INSUFFICENT_DATA);

    if (!acceptAny && ident != identifier) {
      if (ident == 0) {
        unsigned after = cur;
        IsValidNull(&after, len, ident);
        *pos = after;
      } else {
        *pos = cur;
      }
      return false;
    }

    const bool constructed = (ident & 0x20) != 0;
    const bool universal = (ident & 0xC0) == 0;
    unsigned content = cur;
    bool valid = true;
    if (universal) {
      const int tagNo = ident & 0x1F;
      if (!tracing && kAcceptOnly[ident]) {
        if (!constructed && !negative) content += static_cast<unsigned>(len);
      } else {
        valid = tagNo != 0 && CheckUniversalType(tagNo, &content, len, ident);
      }
    }
    if (constructed && valid && len != 0) {
      valid = IsValidConstruction(&content, len, ident);
    } else if (negative) {
      BER_LOG(logErrorLevel,
              "IsValidStructure_internal found a primitve type with indefinite length, rejecting.");
      valid = false;
    } else if (!constructed && !universal) {
      content = cur + static_cast<unsigned>(len);
    }
    if (valid && len != 0 && content != cur + static_cast<unsigned>(len)) valid = false;
    if (!valid) {
      *pos = cur;
      return false;
    }
    cur += static_cast<unsigned>(len);
    if (static_cast<size_t>(cur) == static_cast<size_t>(pos0) + dataLen) {
      *pos = cur;
      return true;
    }
  }
}

bool SfBerComponent::IsValidConstruction(unsigned* pos, size_t dataLen, int identifier) {
  BER_LOG(logInfoLevel, "IsValidConstruction - offset %d, dataLen %zd, identifier %d",
          static_cast<int>(*pos), dataLen, identifier);
  if ((identifier & 0xC0) == 0) {
    if ((identifier & 0x20) == 0) return false;
    const int tagNo = identifier & 0x1F;
    BER_LOG(logInfoLevel,
            "IsValidConstruction about to check structure to ensure concat'ed parts are of type %d",
            tagNo);
    return IsValidStructure(pos, dataLen, tagNo);
  }
  return IsValidStructure(pos, dataLen, 256);
}

// ---------------------------------------------------------------------------
// The type table

// The checker of each universal tag number (a switch rather than a table of
// member pointers, so that the checkers inline into the validation loop).
bool SfBerComponent::CheckUniversalType(int tagNo, unsigned* pos, size_t dataLen, int identifier) {
  switch (tagNo) {
    case 0:
      return IsValidEndOfContents(pos, dataLen, identifier);
    case 1:   // BOOLEAN
    case 2:   // INTEGER
    case 10:  // ENUMERATED
      return IsValidInt(pos, dataLen, identifier);
    case 3:
      return IsValidBitString(pos, dataLen, identifier);
    case 4:
      return IsValidOctetString(pos, dataLen, identifier);
    case 5:
      return IsValidNull(pos, dataLen, identifier);
    case 6:
      return IsValidObjectIdent(pos, dataLen, identifier);
    case 8:
      return IsValidConstructedType(pos, dataLen, identifier);  // EXTERNAL
    case 9:                                                     // REAL
    case 13:                                                    // RELATIVE-OID
      return IsValidPrimitiveType(pos, dataLen, identifier);
    case 16:
      return IsValidSequence(pos, dataLen, identifier);
    case 17:
      return IsValidSet(pos, dataLen, identifier);
    case 18:
      return IsValidNumericString(pos, dataLen, identifier);
    case 19:
      return IsValidPrintString(pos, dataLen, identifier);
    case 20:
      return IsValidT61String(pos, dataLen, identifier);
    case 22:
      return IsValidIA5String(pos, dataLen, identifier);
    case 23:
      return IsValidUTCTime(pos, dataLen, identifier);
    default:  // 7, 11, 12, 14, 15, 21, 24 to 30
      return IsValidAcceptType(pos, dataLen, identifier);
  }
}

#define BER_TRACE(name)                                                                          \
  BER_LOG(logInfoLevel, name " - offset %d, dataLen %zd, identifier %d", static_cast<int>(*pos), \
          dataLen, identifier)
#define BER_REJECT(text)                                                                          \
  BER_LOG(logErrorLevel, text " - offset %d, dataLen %zd, identifier %d", static_cast<int>(*pos), \
          dataLen, identifier)

// Moves *pos past a primitive item's content.
#define BER_SKIP_PRIMITIVE()                                                                      \
  do {                                                                                            \
    if (!(identifier & 0x20) && !negativeLength(dataLen)) *pos += static_cast<unsigned>(dataLen); \
  } while (0)

bool SfBerComponent::IsValidEndOfContents(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidEndOfContents");
  if (identifier & 0x20) {
    BER_REJECT("IsValidEndOfContents is constructed, returning false");
    return false;
  }
  if (dataLen != 0) {
    BER_REJECT("IsValidEndOfContents has non zero length, returning false");
    return false;
  }
  return true;
}

bool SfBerComponent::IsValidInt(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidInt");
  if (identifier & 0x20) {
    BER_REJECT("IsValidInt is constructed, returning false");
    return false;
  }
  if ((identifier & 0x1F) == 1) {
    if (dataLen != 1) {
      BER_REJECT("IsValidInt found bool not using one byte, returning false");
      return false;
    }
  } else if (dataLen == 0) {
    BER_REJECT("IsValidInt found integer/enum using zero bytes, returning false");
    return false;
  }
  BER_SKIP_PRIMITIVE();
  return true;
}

bool SfBerComponent::IsValidBitString(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidBitString");
  if (identifier & 0x20) return true;        // the parts are checked as a construction
  if (negativeLength(dataLen)) return true;  // refused by the caller
  if (dataLen == 0) {
    BER_LOG(logErrorLevel, "bit string primitively encoded with a zero length found at offset %d",
            static_cast<int>(*pos));
    return false;
  }
  const int unused = dataOf(pdu)[*pos];
  if (unused > 7) {
    BER_LOG(logErrorLevel, "bit string found with more than 7 extra bits (%d) at offset %d", unused,
            static_cast<int>(*pos));
    return false;
  }
  if (dataLen == 1 && unused != 0) {
    BER_LOG(logErrorLevel, "bit string found with a length of 1 and extra bits (%d) at offset %d",
            unused, static_cast<int>(*pos));
    return false;
  }
  *pos += static_cast<unsigned>(dataLen);
  return true;
}

bool SfBerComponent::IsValidOctetString(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidOctetString");
  BER_SKIP_PRIMITIVE();
  return true;
}

bool SfBerComponent::IsValidNull(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidNull");
  if (identifier & 0x20) {
    BER_REJECT("IsValidNull found constructed null, returning false");
    return false;
  }
  if (dataLen != 0) {
    BER_REJECT("IsValidNull has non-zero datalen, returning false");
    return false;
  }
  return true;
}

// Content rules of an object identifier: at least one octet, each
// subidentifier in its shortest form (no leading 0x80 octet), and the last
// octet ending a subidentifier (bit 8 clear).
bool SfBerComponent::IsValidObjectIdent(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidObjectIdent");
  if (identifier & 0x20) {
    BER_REJECT("IsValidObjectIdent found constructed oid, returning false");
    return false;
  }
  if (negativeLength(dataLen)) return true;  // refused by the caller
  if (dataLen == 0) {
    BER_REJECT("IsValidObjectIdent found an empty oid, returning false");
    return false;
  }
  const unsigned char* p = dataOf(pdu) + *pos;
  bool atStart = true;
  for (size_t i = 0; i < dataLen; ++i) {
    if (atStart && p[i] == 0x80) {
      BER_REJECT("IsValidObjectIdent found a padded subidentifier, returning false");
      return false;
    }
    atStart = (p[i] & 0x80) == 0;
  }
  if (!atStart) {
    BER_REJECT("IsValidObjectIdent found a truncated subidentifier, returning false");
    return false;
  }
  *pos += static_cast<unsigned>(dataLen);
  return true;
}

bool SfBerComponent::IsValidConstructedType(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidConstructedType");
  if (!(identifier & 0x20)) {
    BER_LOG(logErrorLevel,
            "IsValidConstructedType called at offset %d on identifier %d - not constructed, "
            "returning false",
            static_cast<int>(*pos), identifier);
    return false;
  }
  return true;
}

bool SfBerComponent::IsValidPrimitiveType(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidPrimativeType");
  if (identifier & 0x20) {
    BER_REJECT("IsValidPrimativeType found constructed type, returning false");
    return false;
  }
  BER_SKIP_PRIMITIVE();
  return true;
}

bool SfBerComponent::IsValidSequence(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidSequence");
  if (!(identifier & 0x20)) {
    BER_REJECT("IsValidSequence found non constructed seq, returning false");
    return false;
  }
  return true;
}

bool SfBerComponent::IsValidSet(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidSet");
  if (!(identifier & 0x20)) {
    BER_REJECT("IsValidSet found non constructed set, returning false");
    return false;
  }
  return true;
}

namespace {

// 256-entry character classes for the restricted string types.
struct CharClasses {
  bool numeric[256];
  bool printable[256];
  bool teletex[256];
  CharClasses() {
    for (int c = 0; c < 256; ++c) {
      numeric[c] = (c >= '0' && c <= '9') || c == ' ';
      printable[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     (c != 0 && std::strchr(" '()+,-./:=?", c) != nullptr);
      // Teletex: the graphic characters of both halves, and the control
      // functions a teletex text may carry (backspace, line and form feed,
      // carriage return, shifts, substitute, escape sequences that switch
      // the character set, partial line up/down, control sequence
      // introducer). Other control octets, NUL and DEL are refused.
      teletex[c] = (c >= 0x20 && c <= 0x7E) || c >= 0xA0 || c == 0x08 || c == 0x0A || c == 0x0C ||
                   c == 0x0D || c == 0x0E || c == 0x0F || c == 0x19 || c == 0x1A || c == 0x1B ||
                   c == 0x1D || c == 0x8B || c == 0x8C || c == 0x9B;
    }
  }
};

const CharClasses& charClasses() {
  static const CharClasses classes;
  return classes;
}

// Index of the first octet outside the class, or len when all belong.
size_t firstOutside(const bool* cls, const unsigned char* p, size_t len) {
  for (size_t i = 0; i < len; ++i)
    if (!cls[p[i]]) return i;
  return len;
}

}  // namespace

// The three restricted strings scan a primitive item's content; a
// constructed one is accepted here and its parts checked as a construction.
#define BER_SCAN_STRING(name, cls)                                                               \
  do {                                                                                           \
    if ((identifier & 0x20) || negativeLength(dataLen)) return true;                             \
    size_t bad = firstOutside(charClasses().cls, dataOf(pdu) + *pos, dataLen);                   \
    if (bad != dataLen) {                                                                        \
      BER_LOG(logErrorLevel, name " found invalid character (%d) at offset %d, returning false", \
              dataOf(pdu)[*pos + bad], static_cast<int>(*pos + bad));                            \
      return false;                                                                              \
    }                                                                                            \
    *pos += static_cast<unsigned>(dataLen);                                                      \
    return true;                                                                                 \
  } while (0)

bool SfBerComponent::IsValidNumericString(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidNumericString");
  BER_SCAN_STRING("IsValidNumericString", numeric);
}

bool SfBerComponent::IsValidPrintString(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidPrintString");
  BER_SCAN_STRING("IsValidPrintString", printable);
}

bool SfBerComponent::IsValidT61String(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidT61String");
  BER_SCAN_STRING("IsValidT61String", teletex);
}

bool SfBerComponent::IsValidIA5String(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidIA5String");
  BER_SKIP_PRIMITIVE();
  return true;
}

bool SfBerComponent::IsValidUTCTime(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidUTCTime");
  BER_SKIP_PRIMITIVE();
  return true;
}

bool SfBerComponent::IsValidAcceptType(unsigned* pos, size_t dataLen, int identifier) {
  BER_TRACE("IsValidAcceptType");
  BER_SKIP_PRIMITIVE();
  return true;
}

bool SfBerComponent::IsValidUnknownType(unsigned* pos, size_t dataLen, int identifier) {
  BER_REJECT("IsValidUnknownType, returning false");
  return false;
}

// ---------------------------------------------------------------------------
// Navigation

int SfBerComponent::readItem(unsigned at, unsigned* content, size_t* len) const {
  if (!hasPdu || !pdu) BER_FAIL("noberdef", NO_BER_DEFINED);
  return itemAt(dataOf(pdu), limitOf(pdu, start, length), at, content, len, logErrorLevel,
                maxLength);
}

int SfBerComponent::NextItem(unsigned k) {
  BER_REQUIRE_VALIDATED();
  if (!hasPdu || !pdu) BER_FAIL("noberdef", NO_BER_DEFINED);
  const size_t end = static_cast<size_t>(start) + length;
  if (cursor >= end) return 0;
  const unsigned char* const data = dataOf(pdu);
  const size_t limit = limitOf(pdu, start, length);
  for (unsigned i = 0; i < k; ++i) {
    unsigned content;
    size_t len;
    itemAt(data, limit, cursor, &content, &len, logErrorLevel, maxLength);
    const size_t next = static_cast<size_t>(content) + len;
    if (next >= end) return 0;
    cursor = static_cast<unsigned>(next);
    ++itemIndex;
  }
  unsigned p = cursor;
  return tagAt(data, limit, &p, logErrorLevel) & ~0x20;
}

int SfBerComponent::SetItem(unsigned n) {
  BER_REQUIRE_VALIDATED();
  if (n == 0) BER_FAIL("invindex", INVALID_INDEX);
  if (static_cast<long long>(n) < itemIndex) {
    cursor = start;
    itemIndex = 1;
  }
  int ident = NextItem(n - static_cast<unsigned>(itemIndex));
  if (ident == 0) BER_FAIL("invindex", INVALID_INDEX);
  return ident;
}

int SfBerComponent::GetItemHeader(unsigned* contentOffset, size_t* contentLength) const {
  BER_REQUIRE_VALIDATED();
  return readItem(cursor, contentOffset, contentLength);
}

int SfBerComponent::GetItemIdentifier() {
  BER_REQUIRE_VALIDATED();
  unsigned p = cursor;
  return GetValueTag(&p) & ~0x20;
}

int SfBerComponent::GetItemIdentifier(unsigned n) {
  SetItem(n);
  return GetItemIdentifier();
}

int SfBerComponent::GetItemTagType() {
  return GetItemIdentifier() & 0xC0;
}

int SfBerComponent::GetItemTagType(unsigned n) {
  SetItem(n);
  return GetItemTagType();
}

int SfBerComponent::GetItemTag() {
  return GetItemIdentifier() & 0x1F;
}

int SfBerComponent::GetItemTag(unsigned n) {
  SetItem(n);
  return GetItemTag();
}

size_t SfBerComponent::itemLength() {
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  if (!(ident & 0x20)) return len;
  // A constructed item's value is the concatenation of its parts.
  size_t sum = 0;
  const size_t end = static_cast<size_t>(content) + len;
  unsigned p = content;
  while (p < end) {
    GetValueTag(&p);
    size_t l = GetValueLength(&p);
    if (negativeLength(l) || l > end - p) BER_FAIL("invlen", INVALID_LENGTH);
    sum += l;
    p += static_cast<unsigned>(l);
  }
  return sum;
}

size_t SfBerComponent::GetItemLength() {
  BER_REQUIRE_VALIDATED();
  return itemLength();
}

size_t SfBerComponent::GetItemLength(unsigned n, bool allowUnvalidated) {
  if (validated) {
    SetItem(n);
    return itemLength();
  }
  if (!allowUnvalidated) BER_FAIL("bervalid", BER_NOT_VALIDATED);
  if (!hasPdu || !pdu) BER_FAIL("noberdef", NO_BER_DEFINED);
  // Read the header of the item at start from whatever the buffer holds.
  const size_t saved = length;
  length = pdu->size() > start ? pdu->size() - start : 0;
  unsigned p = start;
  size_t len;
  try {
    GetValueTag(&p);
    len = GetValueLength(&p);
  } catch (...) {
    length = saved;
    throw;
  }
  length = saved;
  if (negativeLength(len)) BER_FAIL("invlen", INVALID_LENGTH);
  return len;
}

size_t SfBerComponent::GetLengthAdditionalSize() {
  if (!hasPdu || !pdu) BER_FAIL("noberdat", NO_BER_DEFINED);
  if (pdu->size() < static_cast<size_t>(start) + 2) BER_FAIL("insufdat", INSUFFICENT_DATA);
  unsigned first = dataOf(pdu)[start + 1];
  return (first & 0x80) ? (first & 0x7F) : 0;
}

// ---------------------------------------------------------------------------
// Accessors

SfBerComponent SfBerComponent::GetSequence() {
  BER_REQUIRE_VALIDATED();
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  if (!(ident & 0x20) || ((ident & 0xC0) == 0 && (ident & 0x1F) != 16)) {
    std::string site = sf::sfi_fmtlog("invtype(%d)", ident);
    berThrow(site.c_str(), "Xber( Ber::INVALID_TYPE )", __FILE__, __LINE__, Ber::INVALID_TYPE);
  }
  SfBerComponent inner(pdu, content, len);
  inner.CopySettings(*this);
  return inner;
}

SfBerComponent SfBerComponent::GetSequence(unsigned n) {
  SetItem(n);
  return GetSequence();
}

SfBerComponent SfBerComponent::GetSet() {
  return GetSequence();
}

SfBerComponent SfBerComponent::GetSet(unsigned n) {
  return GetSequence(n);
}

// INTEGER, ENUMERATED and BOOLEAN, or a primitive item of another class
// (an implicitly tagged integer).
int SfBerComponent::GetInteger() {
  BER_REQUIRE_VALIDATED();
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  const int tagNo = ident & 0x1F;
  if ((ident & 0x20) || ((ident & 0xC0) == 0 && tagNo != 1 && tagNo != 2 && tagNo != 10)) {
    BER_FAIL("invtype", INVALID_TYPE);
  }
  if (len >= 5) BER_FAIL("intbnds", INTEGER_OUT_OF_BOUNDS);
  if (len == 0) BER_FAIL("invlen", INVALID_LENGTH);
  const unsigned char* p = dataOf(pdu) + content;
  std::uint32_t v =
      static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(p[0])));
  for (size_t i = 1; i < len; ++i) v = (v << 8) | p[i];
  return static_cast<int>(static_cast<std::int32_t>(v));
}

int SfBerComponent::GetInteger(unsigned n) {
  SetItem(n);
  return GetInteger();
}

// Appends the content of each part of a constructed string (one level). For
// a bit string each part's first octet (its unused bits) is dropped; only
// the last part may leave bits unused.
void SfBerComponent::copyParts(unsigned content, size_t len, Buffer& out, bool bitString,
                               unsigned* unusedBits) {
  const size_t end = static_cast<size_t>(content) + len;
  unsigned p = content;
  unsigned unused = 0;
  while (p < end) {
    GetValueTag(&p);
    size_t l = GetValueLength(&p);
    if (negativeLength(l) || l > end - p) BER_FAIL("invlen", INVALID_LENGTH);
    const unsigned char* part = dataOf(pdu) + p;
    if (bitString) {
      if (l == 0) BER_FAIL("invlen", INVALID_LENGTH);
      if (unused != 0) BER_FAIL("invtype", INVALID_TYPE);
      unused = part[0];
      if (l > 1) out.append(part + 1, l - 1);
    } else if (l) {
      out.append(part, l);
    }
    p += static_cast<unsigned>(l);
  }
  if (unusedBits) *unusedBits = unused;
}

size_t SfBerComponent::GetOctetString(Buffer& out) {
  BER_REQUIRE_VALIDATED();
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  const bool universal = (ident & 0xC0) == 0;
  const bool constructed = (ident & 0x20) != 0;
  if (universal ? !isStringTag(ident & 0x1F) : constructed) BER_FAIL("invtype", INVALID_TYPE);
  out.resize(0);
  if (constructed) {
    copyParts(content, len, out, false, nullptr);
  } else if (len) {
    out.append(dataOf(pdu) + content, len);
  }
  return out.size();
}

std::string SfBerComponent::GetOctetString() {
  Buffer value;
  GetOctetString(value);
  return value.size() ? std::string(value.data, value.size()) : std::string();
}

std::string SfBerComponent::GetOctetString(unsigned n) {
  SetItem(n);
  return GetOctetString();
}

unsigned SfBerComponent::GetBitString(Buffer& out) {
  BER_REQUIRE_VALIDATED();
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  const bool universal = (ident & 0xC0) == 0;
  const bool constructed = (ident & 0x20) != 0;
  if (universal ? (ident & 0x1F) != 3 : constructed) BER_FAIL("invtype", INVALID_TYPE);
  out.resize(0);
  unsigned unused = 0;
  if (constructed) {
    copyParts(content, len, out, true, &unused);
  } else {
    if (len == 0) BER_FAIL("invlen", INVALID_LENGTH);
    unused = dataOf(pdu)[content];
    if (len > 1) out.append(dataOf(pdu) + content + 1, len - 1);
  }
  return unused;
}

namespace {

// Appends the decimal form of a subidentifier given as base-128 digits,
// of any size.
void appendArc(std::string& out, const unsigned char* p, size_t n) {
  if (n <= 9) {  // up to 63 bits
    std::uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 7) | (p[i] & 0x7F);
    out += std::to_string(v);
    return;
  }
  // Long arcs (UUID-based ones run to 128 bits): repeated division by 10 of
  // the base-128 digit string.
  std::vector<unsigned> digits(n);
  for (size_t i = 0; i < n; ++i) digits[i] = p[i] & 0x7F;
  std::string decimal;
  size_t first = 0;
  while (first < digits.size()) {
    unsigned rem = 0;
    for (size_t i = first; i < digits.size(); ++i) {
      unsigned cur = rem * 128 + digits[i];
      digits[i] = cur / 10;
      rem = cur % 10;
    }
    decimal.push_back(static_cast<char>('0' + rem));
    while (first < digits.size() && digits[first] == 0) ++first;
  }
  out.append(decimal.rbegin(), decimal.rend());
}

}  // namespace

std::string SfBerComponent::GetObjectIdent() {
  BER_REQUIRE_VALIDATED();
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  const bool universal = (ident & 0xC0) == 0;
  if ((ident & 0x20) || (universal && (ident & 0x1F) != 6)) BER_FAIL("invtype", INVALID_TYPE);
  const unsigned char* p = dataOf(pdu) + content;
  // The same content rules as validation, for components trusted unchecked.
  if (len == 0 || (p[len - 1] & 0x80)) BER_FAIL("invtype", INVALID_TYPE);
  std::string out;
  size_t i = 0;
  bool firstArc = true;
  while (i < len) {
    size_t j = i;
    while (p[j] & 0x80) ++j;
    const size_t n = j - i + 1;
    if (p[i] == 0x80) BER_FAIL("invtype", INVALID_TYPE);
    if (firstArc) {
      // The first subidentifier carries the first two arcs: 40 * X + Y.
      if (n > 9) BER_FAIL("intbnds", INTEGER_OUT_OF_BOUNDS);
      std::uint64_t v = 0;
      for (size_t k = i; k <= j; ++k) v = (v << 7) | (p[k] & 0x7F);
      const std::uint64_t x = v < 40 ? 0 : v < 80 ? 1 : 2;
      out += std::to_string(x) + "." + std::to_string(v - 40 * x);
      firstArc = false;
    } else {
      out += '.';
      appendArc(out, p + i, n);
    }
    i = j + 1;
  }
  return out;
}

std::string SfBerComponent::GetObjectIdent(unsigned n) {
  SetItem(n);
  return GetObjectIdent();
}

size_t SfBerComponent::GetConstructedData(Buffer& out) {
  BER_REQUIRE_VALIDATED();
  unsigned content;
  size_t len;
  int ident = readItem(cursor, &content, &len);
  if (!(ident & 0x20)) BER_FAIL("invtype", INVALID_TYPE);
  out.resize(0);
  if (len) out.append(dataOf(pdu) + content, len);
  return len;
}

}  // namespace sfber
