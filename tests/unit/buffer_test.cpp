// Buffer and ExtBuffer: growth, ceiling, editing and the two dump layouts.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

// What fn writes to a stream.
template <typename Fn>
std::string written(Fn fn) {
  FILE* f = std::tmpfile();
  fn(f);
  std::string out(static_cast<size_t>(std::ftell(f)), '\0');
  std::rewind(f);
  out.resize(std::fread(&out[0], 1, out.size(), f));
  std::fclose(f);
  return out;
}

}  // namespace

TEST(Buffer, GrowthAndTheCeiling) {
  sf::Buffer b;
  EXPECT_EQ(b.getROPtr(0), nullptr);  // nothing allocated yet
  b.append("0123456789", 10);
  std::uint64_t capacity = b.capacity;
  b.append("ab");  // within the headroom: nothing moves
  EXPECT_EQ(b.capacity, capacity);
  EXPECT_EQ(sftest::text(b), "0123456789ab");
  sf::Buffer sized(100);
  EXPECT_EQ(sized.getROPtr(0), sized.data);  // even with nothing used
  sized.resize(7);
  EXPECT_EQ(sized.capacity, 100u);

  // A request at the ceiling (8 MiB by default) is allowed, one octet more
  // is refused and changes nothing.
  sf::Buffer big;
  big.extend(8388608);
  EXPECT_GE(big.capacity, 8388608u);
  EXPECT_THROW(sf::Buffer(8388609), sf::Xbounds);
  b.resize(0);
  b.append("keep");
  capacity = b.capacity;
  EXPECT_THROW(b.extend(8388609), sf::Xbounds);
  EXPECT_THROW(b.resize(9000000), sf::Xbounds);
  EXPECT_EQ(sftest::text(b), "keep");
  EXPECT_EQ(b.capacity, capacity);
}

TEST(Buffer, InsertRemoveAndPointers) {
  sf::Buffer b;
  b.append("held");
  b.insert(0, "[");
  b.insert(b.size(), "]");  // at the end it appends
  b.insert(3, "--", 2);
  EXPECT_EQ(sftest::text(b), "[he--ld]");
  EXPECT_THROW(b.insert(9, "x"), sf::Xbounds);

  std::uint64_t capacity = b.capacity;
  b.remove(3, 2);
  EXPECT_EQ(sftest::text(b), "[held]");
  b.remove(0, 1);
  b.remove(2, 1000);  // more than the rest: cut at the position
  EXPECT_EQ(sftest::text(b), "he");
  EXPECT_EQ(b.capacity, capacity);
  // Unlike insert, the end itself is out of range, even for nothing.
  EXPECT_THROW(b.remove(b.size(), 0), sf::Xbounds);

  // A long insert in the middle keeps both sides intact.
  std::string left(3000, 'L'), middle(7000, 'M'), right(5000, 'R');
  sf::Buffer big;
  big.append((left + right).c_str());
  big.insert(left.size(), middle.c_str());
  EXPECT_EQ(sftest::text(big), left + middle + right);

  *b.getPtr(2) = 'y';  // writing at the end grows by exactly one
  b[0] = 'H';
  EXPECT_EQ(sftest::text(b), "Hey");
  b.getPtr(9);
  EXPECT_EQ(b.size(), 10u);
  EXPECT_THROW(b.getROPtr(10), sf::Xbounds);
}

TEST(ExtBuffer, StaysWithinCallerMemory) {
  sftest::LogCapture log(3);
  char mem[16];
  sf::ExtBuffer fixed(mem, 16, 0);
  fixed.append("0123456789abcdef");
  EXPECT_EQ(std::string(mem, 16), "0123456789abcdef");
  EXPECT_THROW(fixed.append("g"), sf::Xmem);
  EXPECT_EQ(log.messages(1),
            std::vector<std::string>{"External buffer requested 17, have 16 bytes"});
  EXPECT_THROW(fixed.getPtr(16), sf::Xmem);
  EXPECT_EQ(fixed.size(), 16u);

  fixed.release();  // keeps the memory, forgets the contents
  EXPECT_TRUE(fixed.data == mem && fixed.capacity == 16 && fixed.size() == 0);
  fixed.append("again");
  // Destroying one over existing contents leaves the stack memory alone (the
  // sanitizer build reports a free of it).
  {
    sf::ExtBuffer over(mem, 16, 5);
    over.remove(0, 1);
  }
  EXPECT_EQ(std::string(mem, 4), "gain");
}

TEST(Buffer, DumpLayouts) {
  sf::Buffer b;
  for (unsigned char byte = 0xe0; byte < 0xfe; ++byte) b.append(&byte, 1);
  const std::string row0 =
      "e0 e1 e2 e3 e4 e5 e6 e7 e8 e9 ea eb ec ed ee ef f0 f1 f2 f3 f4 f5 f6 f7 ";
  const std::string row1 = "f8 f9 fa fb fc fd ";
  // Lines break before absolute multiples of 24, so a listing from 0 starts
  // with an empty line and one from 20 with a short one.
  EXPECT_EQ(written([&](FILE* f) { b.dump(f, 0); }), "\n" + row0 + "\n" + row1 + "\n");
  EXPECT_EQ(written([&](FILE* f) { b.dump(f, 20); }), row0.substr(60) + "\n" + row1 + "\n");
  EXPECT_EQ(written([&](FILE* f) { b.dump(f, 30); }), "\n");

  const std::string blank(48 + 16, ' ');
  sf::Buffer letters;
  letters.append("ABCDEFGHIJKLMNOP");
  EXPECT_EQ(written([&](FILE* f) { letters.dumpBin(f, 0); }),
            "0x00000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP\n"
            "0x00010: " +
                blank + "\n");
  // Bytes 20..127 print as themselves (20 decimal, not the space), others
  // as dots; positions past the end are blank.
  const unsigned char odd[] = {'x', 'y', 19, 20, 32, 126, 127, 128, 255, 0, 'z'};
  sf::Buffer c;
  c.append(odd, sizeof odd);
  EXPECT_EQ(written([&](FILE* f) { c.dumpBin(f, 2); }),
            "0x00000: 13 14 20 7E 7F 80 FF 00 7A " + std::string(21, ' ') + ".\x14 ~\x7f...z" +
                std::string(7, ' ') + "\n");
  sf::Buffer none(8), unallocated;
  EXPECT_EQ(written([&](FILE* f) { none.dumpBin(f, 0); }), "0x00000: " + blank + "\n");
  EXPECT_EQ(written([&](FILE* f) { unallocated.dumpBin(f, 5); }), "0x00000: " + blank + "\n");
  EXPECT_THROW(letters.dumpBin(stderr, 17), sf::Xbounds);
}
