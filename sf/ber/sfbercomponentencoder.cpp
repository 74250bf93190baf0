// sfber::SfBerComponentEncoder: insertion at the cursor, tag, length and
// integer encoding, wrapping and deletion.
#include "sf/ber/sfbercomponentencoder.h"

#include <cstdint>

#include "sf/base/buffer.h"
#include "sf/sferr.h"

namespace sfber {

using sf::Buffer;

namespace {

[[noreturn]] __attribute__((noinline, cold)) void encoderThrow(const char* site, const char* text,
                                                               const char* file, int line,
                                                               sf::Ber::ErrorType e) {
  sf::sfi_throwsite(site, text, file, line);
  throw sf::Xber(e);
}

}  // namespace

SfBerComponentEncoder::SfBerComponentEncoder() : SfBerComponent(), own(new Buffer()) {
  reset();
}

void SfBerComponentEncoder::reset() {
  pdu = own;
  hasPdu = true;
  validated = true;
  length = own->size();
  start = 0;
  bufferSize = own->size();
  cursor = 0;
  itemIndex = 1;
}

SfBerComponentEncoder::SfBerComponentEncoder(const SfBerComponentEncoder& other)
    : SfBerComponent(other), own(new Buffer()) {
  if (other.own->size()) own->append(other.own->data, other.own->size());
  pdu = own;
  bufferSize = own->size();
}

SfBerComponentEncoder& SfBerComponentEncoder::operator=(const SfBerComponentEncoder& other) {
  if (this == &other) return *this;
  Buffer* fresh = new Buffer();
  try {
    if (other.own->size()) fresh->append(other.own->data, other.own->size());
  } catch (...) {
    delete fresh;
    throw;
  }
  SfBerComponent::operator=(other);
  delete own;
  own = fresh;
  pdu = own;
  bufferSize = own->size();
  return *this;
}

SfBerComponentEncoder::~SfBerComponentEncoder() {
  delete own;
}

Buffer* SfBerComponentEncoder::getBuffer() const {
  Buffer* copy = new Buffer();
  try {
    if (own->size()) copy->append(own->data, own->size());
  } catch (...) {
    delete copy;
    throw;
  }
  return copy;
}

// Every write goes in at the cursor and moves it past the new bytes.
void SfBerComponentEncoder::write(const void* p, size_t n) {
  if (n == 0) return;
  own->insert(cursor, p, n);
  length += n;
  bufferSize += n;
  cursor += static_cast<unsigned>(n);
}

void SfBerComponentEncoder::erase(size_t n) {
  own->remove(cursor, n);
  length -= n;
  bufferSize -= n;
}

size_t SfBerComponentEncoder::_encodeTag(int tag) {
  if (tag < 0 || tag > 0xFF) {
    encoderThrow("tagbnds", "sf::Xber( sf::Ber::TAG_OUT_OF_BOUNDS )", __FILE__, __LINE__,
                 sf::Ber::TAG_OUT_OF_BOUNDS);
  }
  unsigned char octet = static_cast<unsigned char>(tag);
  write(&octet, 1);
  return 1;
}

size_t SfBerComponentEncoder::_encodeLength(size_t len) {
  unsigned char octets[5];
  if (len < 128) {
    octets[0] = static_cast<unsigned char>(len);
    write(octets, 1);
    return 1;
  }
  const std::uint32_t v = static_cast<std::uint32_t>(len);
  unsigned n = 1;
  while (n < 4 && (v >> (8 * n)) != 0) ++n;
  octets[0] = static_cast<unsigned char>(0x80 + n);
  for (unsigned i = 0; i < n; ++i)
    octets[1 + i] = static_cast<unsigned char>(v >> (8 * (n - 1 - i)));
  write(octets, n + 1);
  return n + 1;
}

size_t SfBerComponentEncoder::_encodeInteger(int value) {
  const std::uint32_t bits = static_cast<std::uint32_t>(value);
  const std::uint32_t m = value < 0 ? 0u - bits : bits;  // magnitude
  unsigned n = 1;
  for (std::uint32_t t = m >> 8; t != 0; t >>= 8) ++n;
  // One more octet when the magnitude fills the top bit of its last octet:
  // right for positive values, one octet over the minimum for some negative
  // ones, which is the encoding peers of this library expect.
  unsigned contentLen = ((m >> (8 * n - 1)) & 1) ? n + 1 : n;
  if (contentLen > 4) contentLen = 4;  // only the most negative value
  unsigned char octets[4];
  for (unsigned i = 0; i < 4; ++i) octets[i] = static_cast<unsigned char>(bits >> (8 * (3 - i)));
  size_t written = _encodeLength(contentLen);
  write(octets + (4 - contentLen), contentLen);
  return written + contentLen;
}

void SfBerComponentEncoder::InsertChunk(int tag, const void* data, size_t len, bool encodeLength) {
  _encodeTag(tag);
  if (encodeLength) _encodeLength(len);
  write(data, len);
  ++itemIndex;
}

void SfBerComponentEncoder::InsertChunk(int tag, const SfBerComponent& comp, bool encodeLength) {
  SfBerComponent src(comp);
  // Wrapping this encoder's own items: read them from a snapshot, since the
  // writes below move the bytes they come from.
  Buffer snapshot;
  if (comp.pdu == own) {
    if (own->size()) snapshot.append(own->data, own->size());
    src.pdu = &snapshot;
    src.bufferSize = snapshot.size();
  }
  _encodeTag(tag);
  const unsigned mark = cursor;
  size_t written = 0;
  if (src.length != 0) {
    src.FirstItem();
    do {
      unsigned content;
      size_t len;
      int itemTag = src.readItem(src.cursor, &content, &len);
      written += _encodeTag(itemTag);
      written += _encodeLength(len);
      write(src.bytes() + content, len);
      written += len;
    } while (src.NextItem(1) != 0);
  }
  if (encodeLength) {
    const unsigned after = cursor;
    cursor = mark;
    size_t n = _encodeLength(written);
    cursor = after + static_cast<unsigned>(n);
  }
  ++itemIndex;
}

void SfBerComponentEncoder::InsertInteger(int value, int tag) {
  _encodeTag(tag);
  _encodeInteger(value);
  ++itemIndex;
}

void SfBerComponentEncoder::InsertOctetString(std::string value, int tag) {
  _encodeTag(tag);
  _encodeLength(value.size());
  write(value.data(), value.size());
  ++itemIndex;
}

void SfBerComponentEncoder::DeleteItem() {
  unsigned content;
  size_t len;
  readItem(cursor, &content, &len);
  erase((content - cursor) + len);
}

}  // namespace sfber
