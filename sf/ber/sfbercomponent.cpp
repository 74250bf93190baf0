// sfber::SfBerComponent: validation, navigation and accessors.
#include "sf/ber/sfbercomponent.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "sf/base/buffer.h"
#include "sf/base/log.h"
#include "sf/sferr.h"

namespace sfber {

using sf::Buffer;
using sf::Xber;
namespace Ber = sf::Ber;

namespace {

// The process's options: those set last before the first component was
// made, fixed by it for the life of the process.
std::mutex g_pendingLock;
BerOptions g_pending;

const BerOptions& processOptions() {
  static const BerOptions fixed = [] {
    std::lock_guard<std::mutex> hold(g_pendingLock);
    return g_pending;
  }();
  return fixed;
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

void SfBerComponent::SetProcessOptions(const BerOptions& options) {
  std::lock_guard<std::mutex> hold(g_pendingLock);
  g_pending = options;
}

void SfBerComponent::ClearSettings() {
  validated = false;
  hasPdu = false;
  depth = 0;
  SetOptions(processOptions());
}

void SfBerComponent::SetOptions(const BerOptions& options) {
  maxLength = options.maxLength;
  maxDepth = options.maxDepth;
  logErrorLevel = options.logErrorLevel;
  logInfoLevel = options.logInfoLevel;
}

BerOptions SfBerComponent::GetOptions() const {
  return {maxLength, maxDepth, logErrorLevel, logInfoLevel};
}

void SfBerComponent::CopySettings(const SfBerComponent& other) {
  SetOptions(other.GetOptions());
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
// The universal types

namespace {

// What an item of a universal type must be. The form rule applies to every
// item; the size and content rules to primitive items only (a constructed
// one is then checked as a construction of primitive parts). The size rule
// sees the length as read, all ones for the indefinite form; the content
// rule is not applied to an indefinite item, which the walk refuses.
// A form is the set of forms it allows: bit 0 primitive, bit 1 constructed.
enum class Form : unsigned char { Never = 0, Primitive = 1, Constructed = 2, Any = 3 };
enum class Size : unsigned char { Any, Zero, One, NotZero };
enum class Content : unsigned char { Any, BitString, ObjectIdent, Numeric, Printable, Teletex };

// The values a failure line is formatted with, in this order.
enum class Args : unsigned char {
  OffsetLengthIdentifier,  // content offset, length, identifier octet
  OffsetIdentifier,        // content offset, identifier octet
  Offset,                  // content offset
  OctetOffset,             // the offending octet's value and offset
};

// A rejection's log line, written at the component's error level.
struct Failure {
  const char* format = nullptr;
  Args args = Args::OffsetLengthIdentifier;
};

struct UniversalType {
  const char* checker = nullptr;  // the name its trace line carries
  Form form = Form::Any;
  Failure formFailure{};
  Size size = Size::Any;
  Failure sizeFailure{};
  Content content = Content::Any;
  // BitString: more than 7 unused bits; unused bits in a one-octet string.
  // ObjectIdent: a padded subidentifier; a truncated last one.
  // Numeric, Printable, Teletex: an octet outside the character set.
  Failure contentFailures[2]{};
};

// The tail of most rejection lines.
#define BER_WHERE " - offset %d, dataLen %zd, identifier %d"

// One row per universal tag number: the checker its trace line names, then
// each rule with the line its failure logs. (31 announces a multi-octet tag,
// which the tag reader refuses before any row is read.)
// clang-format off
constexpr UniversalType kInteger{"IsValidInt",
    Form::Primitive, {"IsValidInt is constructed, returning false" BER_WHERE},
    Size::NotZero, {"IsValidInt found integer/enum using zero bytes, returning false" BER_WHERE}};
constexpr UniversalType kPrimitive{"IsValidPrimativeType",
    Form::Primitive, {"IsValidPrimativeType found constructed type, returning false" BER_WHERE}};
constexpr UniversalType kAccept{"IsValidAcceptType"};
constexpr Args kOctet = Args::OctetOffset;

constexpr UniversalType kUniversal[31] = {
    // 0 END-OF-CONTENTS ends an indefinite length, which is never accepted.
    {nullptr, Form::Never},
    {"IsValidInt",  // 1 BOOLEAN
     Form::Primitive, kInteger.formFailure,
     Size::One, {"IsValidInt found bool not using one byte, returning false" BER_WHERE}},
    kInteger,  // 2 INTEGER
    {"IsValidBitString",  // 3 BIT STRING: its first octet counts the unused bits of the last
     Form::Any, {},
     Size::NotZero, {"bit string primitively encoded with a zero length found at offset %d",
                     Args::Offset},
     Content::BitString,
     {{"bit string found with more than 7 extra bits (%d) at offset %d", kOctet},
      {"bit string found with a length of 1 and extra bits (%d) at offset %d", kOctet}}},
    {"IsValidOctetString"},  // 4 OCTET STRING
    {"IsValidNull",  // 5 NULL
     Form::Primitive, {"IsValidNull found constructed null, returning false" BER_WHERE},
     Size::Zero, {"IsValidNull has non-zero datalen, returning false" BER_WHERE}},
    {"IsValidObjectIdent",  // 6 OBJECT IDENTIFIER
     Form::Primitive, {"IsValidObjectIdent found constructed oid, returning false" BER_WHERE},
     Size::NotZero, {"IsValidObjectIdent found an empty oid, returning false" BER_WHERE},
     Content::ObjectIdent,
     {{"IsValidObjectIdent found a padded subidentifier, returning false" BER_WHERE},
      {"IsValidObjectIdent found a truncated subidentifier, returning false" BER_WHERE}}},
    kAccept,  // 7 ObjectDescriptor
    {"IsValidConstructedType",  // 8 EXTERNAL
     Form::Constructed, {"IsValidConstructedType called at offset %d on identifier %d - not "
                         "constructed, returning false", Args::OffsetIdentifier}},
    kPrimitive,  // 9 REAL
    kInteger,    // 10 ENUMERATED
    kAccept,     // 11 EMBEDDED PDV
    kAccept,     // 12 UTF8String
    kPrimitive,  // 13 RELATIVE-OID
    kAccept,     // 14 TIME
    kAccept,     // 15
    {"IsValidSequence",  // 16 SEQUENCE
     Form::Constructed, {"IsValidSequence found non constructed seq, returning false" BER_WHERE}},
    {"IsValidSet",  // 17 SET
     Form::Constructed, {"IsValidSet found non constructed set, returning false" BER_WHERE}},
    {"IsValidNumericString", Form::Any, {}, Size::Any, {},  // 18 NumericString
     Content::Numeric, {{"IsValidNumericString found invalid character (%d) at offset %d, "
                         "returning false", kOctet}}},
    {"IsValidPrintString", Form::Any, {}, Size::Any, {},  // 19 PrintableString
     Content::Printable, {{"IsValidPrintString found invalid character (%d) at offset %d, "
                           "returning false", kOctet}}},
    {"IsValidT61String", Form::Any, {}, Size::Any, {},  // 20 TeletexString (T61String)
     Content::Teletex, {{"IsValidT61String found invalid character (%d) at offset %d, "
                         "returning false", kOctet}}},
    kAccept,               // 21 VideotexString
    {"IsValidIA5String"},  // 22 IA5String
    {"IsValidUTCTime"},    // 23 UTCTime
    kAccept, kAccept, kAccept, kAccept, kAccept, kAccept, kAccept,  // 24 to 30
};
// clang-format on

#undef BER_WHERE

// True when format's conversions are exactly want's ("d zd d "), so that no
// row's line can read a value that is not passed.
constexpr bool conversionsAre(const char* format, const char* want) {
  for (const char* f = format; *f != '\0'; ++f) {
    if (*f != '%') continue;
    for (++f;; ++f, ++want) {
      if (*f != *want || *f == '\0') return false;
      if (*f == 'd') break;  // the one conversion the rows use
    }
    if (*++want != ' ') return false;
    ++want;
  }
  return *want == '\0';
}

constexpr bool formatFits(const Failure& f) {
  constexpr const char* kWant[] = {"d zd d ", "d d ", "d ", "d d "};
  return f.format == nullptr || conversionsAre(f.format, kWant[static_cast<int>(f.args)]);
}

constexpr bool everyFormatFits() {
  for (const UniversalType& t : kUniversal) {
    if (!formatFits(t.formFailure) || !formatFits(t.sizeFailure) ||
        !formatFits(t.contentFailures[0]) || !formatFits(t.contentFailures[1]))
      return false;
  }
  return true;
}
static_assert(everyFormatFits(), "a failure line of the type table takes other values");

constexpr bool inSet(const char* set, int c) {
  for (; *set != '\0'; ++set)
    if (*set == c) return true;
  return false;
}

// 256-entry character sets of the restricted string types.
struct CharacterSets {
  bool numeric[256] = {};
  bool printable[256] = {};
  bool teletex[256] = {};
  constexpr CharacterSets() {
    for (int c = 0; c < 256; ++c) {
      numeric[c] = (c >= '0' && c <= '9') || c == ' ';
      printable[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     inSet(" '()+,-./:=?", c);
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
constexpr CharacterSets kCharacterSets;

inline bool formFits(Form rule, bool constructed) {
  return (static_cast<unsigned>(rule) >> (constructed ? 1 : 0)) & 1;
}

inline bool sizeFits(Size rule, size_t len) {
  switch (rule) {
    case Size::Any:
      return true;
    case Size::Zero:
      return len == 0;
    case Size::One:
      return len == 1;
    case Size::NotZero:
      return len != 0;
  }
  return false;
}

// Writes a row's failure line (none for a row without one); returns false.
__attribute__((noinline, cold)) bool rejects(const Failure& f, int level, unsigned offset,
                                             size_t len, int ident, int octet) {
  if (!f.format) return false;
  const int at = static_cast<int>(offset);
  switch (f.args) {
    case Args::OffsetLengthIdentifier:
      BER_LOG(level, f.format, at, len, ident);
      break;
    case Args::OffsetIdentifier:
      BER_LOG(level, f.format, at, ident);
      break;
    case Args::Offset:
      BER_LOG(level, f.format, at);
      break;
    case Args::OctetOffset:
      BER_LOG(level, f.format, octet, at);
      break;
  }
  return false;
}

// Applies a row's content rule to the len octets at content (at least one
// where the row's size rule says so).
__attribute__((noinline)) bool contentFits(const UniversalType& t, const unsigned char* data,
                                           unsigned content, size_t len, int ident,
                                           int errorLevel) {
  const unsigned char* const p = data + content;
  const bool* set = nullptr;
  switch (t.content) {
    case Content::Any:
      return true;
    case Content::BitString:
      if (p[0] > 7) return rejects(t.contentFailures[0], errorLevel, content, len, ident, p[0]);
      if (len == 1 && p[0] != 0)
        return rejects(t.contentFailures[1], errorLevel, content, len, ident, p[0]);
      return true;
    case Content::ObjectIdent: {
      // Each subidentifier in its shortest form (never starting with 0x80),
      // the last octet ending one (bit 8 clear).
      bool atStart = true;
      for (size_t i = 0; i < len; ++i) {
        if (atStart && p[i] == 0x80)
          return rejects(t.contentFailures[0], errorLevel, content, len, ident, 0);
        atStart = (p[i] & 0x80) == 0;
      }
      return atStart || rejects(t.contentFailures[1], errorLevel, content, len, ident, 0);
    }
    case Content::Numeric:
      set = kCharacterSets.numeric;
      break;
    case Content::Printable:
      set = kCharacterSets.printable;
      break;
    case Content::Teletex:
      set = kCharacterSets.teletex;
      break;
  }
  for (size_t i = 0; i < len; ++i) {
    if (!set[p[i]]) {
      return rejects(t.contentFailures[0], errorLevel, content + static_cast<unsigned>(i), len,
                     ident, p[i]);
    }
  }
  return true;
}

// Checks an item against the row of its universal type: ident is its
// identifier octet, content where its content starts, len its length as
// read. Writes the row's trace line (when tracing) and the failure; true
// when the row accepts the item.
inline bool acceptsItem(const UniversalType& t, int ident, const unsigned char* data,
                        unsigned content, size_t len, int errorLevel, int infoLevel, bool tracing) {
  if (tracing && t.checker) {
    BER_LOG(infoLevel, "%s - offset %d, dataLen %zd, identifier %d", t.checker,
            static_cast<int>(content), len, ident);
  }
  const bool constructed = (ident & 0x20) != 0;
  if (!formFits(t.form, constructed))
    return rejects(t.formFailure, errorLevel, content, len, ident, 0);
  if (constructed) return true;  // its parts are checked as a construction
  if (!sizeFits(t.size, len)) return rejects(t.sizeFailure, errorLevel, content, len, ident, 0);
  if (t.content == Content::Any || negativeLength(len)) return true;
  return contentFits(t, data, content, len, ident, errorLevel);
}

[[noreturn]] __attribute__((noinline, cold)) void tooDeep(int errorLevel, int maxDepth, int depth) {
  BER_LOG(errorLevel, ": HINT: increase sf.ber.maxdepth(%d) to greater than (%d). IsValidStructure",
          maxDepth, depth);
  SF_THROW("IsValidStructure", Xber(Ber::TOO_DEEP));
}

// Items a construction accepts: any, or only those with one identifier.
constexpr int kAnyItem = -1;

// A construction being checked: where it ends (all ones for the indefinite
// form) and which items it accepts.
struct Construction {
  size_t end;
  int accepts;
};

// The constructions open round the innermost one. Usual data nests a few
// levels, held here without allocating; deeper data spills to the heap,
// bounded by the depth limit and by the data itself (every level takes two
// octets at least).
class EnclosingConstructions {
 public:
  void push(const Construction& c) {
    if (count_ == capacity_) grow();
    levels_[count_++] = c;
  }
  Construction pop() { return levels_[--count_]; }

 private:
  __attribute__((noinline)) void grow() {
    spill_.resize(2 * capacity_);
    if (levels_ == inline_) std::copy(inline_, inline_ + count_, spill_.begin());
    levels_ = spill_.data();
    capacity_ = spill_.size();
  }
  Construction inline_[16];
  std::vector<Construction> spill_;
  Construction* levels_ = inline_;
  size_t count_ = 0;
  size_t capacity_ = 16;
};

}  // namespace

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

// One loop over every item at every level, with the open constructions on
// an explicit stack: no input, however deep, can exhaust the thread's stack,
// and the depth limit is the configured one alone.
bool SfBerComponent::IsValidStructure(unsigned* pos, size_t dataLen, int identifier) {
  const unsigned char* const data = dataOf(pdu);
  const size_t limit = limitOf(pdu, start, length);
  const int errorLevel = logErrorLevel;
  const int infoLevel = logInfoLevel;
  const bool tracing = sf::sfi_on(infoLevel);
  const int maxLen = maxLength;
  Construction inner{0, kAnyItem};  // the innermost open construction
  EnclosingConstructions enclosing;
  int open = 0;  // constructions open: inner and those enclosing it

  // Opens a construction of len octets at `at` one level deeper; false when
  // it is too short to hold an item.
  auto enter = [&](unsigned at, size_t len, int accepts) {
    if (++depth > maxDepth) tooDeep(errorLevel, maxDepth, depth);
    if (len < 2) {
      --depth;
      return false;
    }
    if (open++ > 0) enclosing.push(inner);
    inner.end = len > SIZE_MAX - at ? SIZE_MAX : at + len;
    inner.accepts = accepts == 256 || accepts == 16 || accepts == 17 ? kAnyItem : accepts;
    return true;
  };
  // A refused item fails every open construction.
  auto refuse = [&](unsigned at) {
    depth -= open;
    *pos = at;
    return false;
  };

  unsigned cur = *pos;
  try {
    if (!enter(cur, dataLen, identifier)) return false;
    for (;;) {
      if (static_cast<size_t>(cur) + 2 > inner.end) BER_FAIL("insufdat", INSUFFICENT_DATA);
      errorOffset = cur;
      const int ident = tagAt(data, limit, &cur, errorLevel);
      const size_t len = lengthAt(data, limit, &cur, maxLen);
      // An indefinite length passes here: the check of an indefinite
      // construction runs until it meets the end-of-contents item, which
      // fails it, and a primitive one is refused below.
      const bool negative = negativeLength(len);
      if (!negative && (cur + len > inner.end || len > limit - cur))
        BER_FAIL("insufdat", INSUFFICENT_DATA);

      if (inner.accepts != kAnyItem && ident != inner.accepts) {
        // A part of another type ends a constructed string; end-of-contents
        // is checked as a NULL on the way.
        if (ident == 0)
          acceptsItem(kUniversal[5], ident, data, cur, len, errorLevel, infoLevel, tracing);
        return refuse(cur);
      }
      const bool constructed = (ident & 0x20) != 0;
      const bool universal = (ident & 0xC0) == 0;
      bool valid = !universal || acceptsItem(kUniversal[ident & 0x1F], ident, data, cur, len,
                                             errorLevel, infoLevel, tracing);
      if (constructed && valid && len != 0) {
        // Into the content. A universal construction holds primitive parts
        // of its own type (SEQUENCE and SET: any items); others any items.
        int accepts = 256;
        if (tracing) {
          BER_LOG(infoLevel, "IsValidConstruction - offset %d, dataLen %zd, identifier %d",
                  static_cast<int>(cur), len, ident);
        }
        if (universal) {
          accepts = ident & 0x1F;
          if (tracing) {
            BER_LOG(infoLevel,
                    "IsValidConstruction about to check structure to ensure concat'ed parts are "
                    "of type %d",
                    accepts);
          }
        }
        if (!enter(cur, len, accepts)) return refuse(cur);
        continue;
      }
      if (negative) {
        BER_LOG(errorLevel,
                "IsValidStructure_internal found a primitve type with indefinite length, "
                "rejecting.");
        valid = false;
      }
      if (!valid) return refuse(cur);
      cur += static_cast<unsigned>(len);
      // Close every construction that ends with this item.
      while (cur == inner.end) {
        --depth;
        if (--open == 0) {
          *pos = cur;
          return true;
        }
        inner = enclosing.pop();
      }
    }
  } catch (...) {
    // Each open construction reports the exception as it passes; the depth
    // is left raised (AssignPDU and ClearSettings reset it).
    for (int i = 0; i < open && sf::sfi_on(3); ++i)
      BER_LOG(3, "IsValidStructure: caught unexpected exception");
    throw;
  }
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
