// SfBerComponentEncoder: exact encodings, insertion at the cursor, wrapping,
// deletion, copies, and round trips through the decoder.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sf/sflib.h"
#include "support/testsupport.h"

using sfber::SfBerComponentEncoder;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes bytesOf(const SfBerComponentEncoder& e) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(e.getROBuffer()->data);
  return Bytes(p, p + e.getROBuffer()->size());
}

}  // namespace

TEST(BerEncoder, IntegerLengthAndTagEncodings) {
  // Integers in the fewest octets, but one more for a negative value whose
  // magnitude fills the top bit (-128, -32768).
  const std::pair<int, Bytes> integers[] = {
      {0, {0x02, 0x01, 0x00}},          {127, {0x02, 0x01, 0x7F}},
      {128, {0x02, 0x02, 0x00, 0x80}},  {256, {0x02, 0x02, 0x01, 0x00}},
      {-1, {0x02, 0x01, 0xFF}},         {-127, {0x02, 0x01, 0x81}},
      {-128, {0x02, 0x02, 0xFF, 0x80}}, {-32768, {0x02, 0x03, 0xFF, 0x80, 0x00}}};
  for (const auto& [value, encoding] : integers) {
    SfBerComponentEncoder one;
    one.InsertInteger(value, 0x02);
    EXPECT_EQ(bytesOf(one), encoding) << value;
  }

  // Every value reads back the same, the most negative one from 80 00 00 00.
  std::mt19937 rng(7);
  std::vector<int> values{-32769, 8388607, -8388609, 2147483647, -2147483647, -2147483647 - 1};
  for (int i = 0; i < 2000; ++i) values.push_back(static_cast<int>(rng()) >> (rng() % 31));
  SfBerComponentEncoder e;
  for (int v : values) e.InsertInteger(v, 0x02);
  e.ValidateStructure();
  for (unsigned n = 0; n < values.size(); ++n) ASSERT_EQ(e.GetInteger(n + 1), values[n]);

  // Lengths in the short form, else the fewest octets after 0x80 | count.
  SfBerComponentEncoder g;
  for (auto [n, size] : {std::pair<size_t, size_t>{127, 1}, {128, 2}, {65536, 4}, {0x01020304, 5}})
    EXPECT_EQ(g._encodeLength(n), size) << n;
  EXPECT_EQ(bytesOf(g),
            (Bytes{0x7F, 0x81, 0x80, 0x83, 0x01, 0x00, 0x00, 0x84, 0x01, 0x02, 0x03, 0x04}));

  // A tag that does not fit one octet: what came before stays.
  SfBerComponentEncoder h;
  h.InsertInteger(5, 0x02);
  EXPECT_EQ(sftest::berCode([&] { h.InsertChunk(0x1FF, "ab", 2, true); }),
            sf::Ber::TAG_OUT_OF_BOUNDS);
  EXPECT_EQ(bytesOf(h), (Bytes{0x02, 0x01, 0x05}));
}

TEST(BerEncoder, WrappingAComponent) {
  // The items re-encoded under a new SET, the total in front, every length
  // in the encoder's own form (the source's are written here as raw octets
  // after the tags); nested content is copied as it stands. Without
  // encodeLength no outer length is written.
  SfBerComponentEncoder source, set, raw;
  source.InsertChunk(0x04, "\x81\x01z", 3, false);
  source.InsertChunk(0x30, "\x82\x00\x04\x02\x81\x01\x09", 7, false);
  set.InsertSet(source, 0x31);
  EXPECT_EQ(bytesOf(set), (Bytes{0x31, 0x09, 0x04, 0x01, 'z', 0x30, 0x04, 0x02, 0x81, 0x01, 0x09}));
  EXPECT_EQ(set.GetItemOffset(), 11u);
  raw.InsertChunk(0x30, source, false);
  EXPECT_EQ(bytesOf(raw), (Bytes{0x30, 0x04, 0x01, 'z', 0x30, 0x04, 0x02, 0x81, 0x01, 0x09}));

  // Wrapping the encoder's own items; lengths of two octets.
  SfBerComponentEncoder self;
  self.InsertOctetString(std::string(300, 'q'), 0x04);
  self.InsertInteger(1, 0x02);
  self.InsertChunk(0x30, self, true);
  Bytes b = bytesOf(self);
  ASSERT_EQ(b.size(), 307u + 311u);
  EXPECT_EQ(Bytes(b.begin() + 307, b.begin() + 311), (Bytes{0x30, 0x82, 0x01, 0x33}));
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 307), Bytes(b.begin() + 311, b.end()));
}

TEST(BerEncoder, InsertAtCursorAndDelete) {
  // Content first, then the header in front of it.
  SfBerComponentEncoder e;
  e.InsertInteger(1, 0x02);
  e.InsertOctetString("abc", 0x04);
  e.InsertInteger(3, 0x02);
  e.SetItem(2);
  e.InsertInteger(2, 0x02);  // goes in before "abc"
  EXPECT_EQ(bytesOf(e), (Bytes{0x02, 0x01, 0x01, 0x02, 0x01, 0x02, 0x04, 0x03, 'a', 'b', 'c', 0x02,
                               0x01, 0x03}));

  // DeleteItem after FirstItem removes exactly the first item and leaves
  // the cursor on the next one's first octet.
  e.FirstItem();
  e.DeleteItem();
  EXPECT_EQ(e.GetItemOffset(), 0u);
  e.SetItem(2);
  e.DeleteItem();
  EXPECT_EQ(bytesOf(e), (Bytes{0x02, 0x01, 0x02, 0x02, 0x01, 0x03}));
  EXPECT_EQ(e.GetLength(), 6u);
  e.SetItem(2);
  e.DeleteItem();
  e.FirstItem();
  e.DeleteItem();
  EXPECT_TRUE(bytesOf(e).empty());
  EXPECT_EQ(sftest::berCode([&] { e.DeleteItem(); }), sf::Ber::INSUFFICENT_DATA);
}

TEST(BerEncoder, CopiesAreIndependent) {
  SfBerComponentEncoder a;
  a.InsertInteger(1, 0x02);
  SfBerComponentEncoder b(a);
  b.InsertInteger(2, 0x02);
  a.InsertOctetString("x", 0x04);
  EXPECT_EQ(bytesOf(a), (Bytes{0x02, 0x01, 0x01, 0x04, 0x01, 'x'}));
  EXPECT_EQ(b.GetInteger(2), 2);  // read from its own bytes
  b = a;
  a.FirstItem();
  a.DeleteItem();
  EXPECT_EQ(b.GetOctetString(2), "x");
  // getBuffer hands over a copy.
  std::unique_ptr<sf::Buffer> out(b.getBuffer());
  ASSERT_EQ(out->size(), 6u);
  b.InsertInteger(9, 0x02);
  EXPECT_EQ(out->size(), 6u);
}
