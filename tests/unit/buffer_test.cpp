// Buffer and ExtBuffer: growth, ceiling, editing and the two dump layouts.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <string>

#include "sf/sflib.h"
#include "support/testsupport.h"

namespace {

std::string contents(const sf::Buffer& b) {
  return std::string(b.data, b.size());
}

std::string hexByte(int v) {
  char text[8];
  std::snprintf(text, sizeof text, "%02x ", v & 0xff);
  return text;
}

// Runs fn with a temporary stream and returns what it wrote.
template <typename Fn>
std::string captureStream(Fn fn) {
  FILE* f = std::tmpfile();
  fn(f);
  std::fflush(f);
  std::string out;
  std::rewind(f);
  int c;
  while ((c = std::fgetc(f)) != EOF) out.push_back(static_cast<char>(c));
  std::fclose(f);
  return out;
}

// The throw-site record with the expression text given, naming source file
// base (e.g. "buffer.cpp") and some line.
bool hasThrowSite(const sftest::LogCapture& log, const std::string& site, const std::string& expr,
                  const std::string& base) {
  std::string head = "exception " + site + ":" + expr + " thrown at ";
  for (const sftest::Record& r : log.records()) {
    if (r.level != 3 || r.msg.compare(0, head.size(), head) != 0) continue;
    std::string where = r.msg.substr(head.size());
    if (std::regex_match(where, std::regex(".*/" + base + "\\.[0-9]+")) &&
        r.file.find(base) != std::string::npos)
      return true;
  }
  return false;
}

}  // namespace

TEST(Buffer, GrowthAllocatesTwentyPercentHeadroom) {
  sf::Buffer empty;
  EXPECT_EQ(empty.data, nullptr);
  EXPECT_EQ(empty.capacity, 0u);
  EXPECT_EQ(empty.getROPtr(0), nullptr);
  empty.append("0123456789", 10);
  EXPECT_EQ(empty.capacity, 12u);
  EXPECT_EQ(contents(empty), "0123456789");
  // Within capacity nothing moves; past it the request gets 20 % on top.
  const char* before = empty.data;
  empty.append("ab");
  EXPECT_EQ(empty.data, before);
  EXPECT_EQ(empty.capacity, 12u);
  empty.append("c");
  EXPECT_EQ(empty.capacity, 15u);
  EXPECT_EQ(contents(empty), "0123456789abc");

  sf::Buffer sized(100);
  EXPECT_NE(sized.data, nullptr);
  EXPECT_EQ(sized.size(), 0u);
  EXPECT_EQ(sized.capacity, 100u);
  EXPECT_EQ(sized.getROPtr(0), sized.data);  // even with nothing used
  sized.resize(100);
  EXPECT_EQ(sized.capacity, 100u);
  sized.resize(7);
  EXPECT_EQ(sized.capacity, 100u);  // capacity never shrinks
  sized.resize(101);
  EXPECT_EQ(sized.capacity, 121u);
  EXPECT_EQ(sized.size(), 101u);

  // The request at the ceiling is allowed; the headroom may pass it.
  sf::Buffer big;
  big.extend(8388608);
  EXPECT_EQ(big.capacity, 10066329u);
  EXPECT_EQ(big.size(), 0u);

  sized.release();
  EXPECT_EQ(sized.data, nullptr);
  EXPECT_EQ(sized.size(), 0u);
  EXPECT_EQ(sized.capacity, 0u);
  sized.append("again");
  EXPECT_EQ(contents(sized), "again");
}

TEST(Buffer, CeilingRefusesLargerRequestsWithTheirThrowSites) {
  sftest::LogCapture log(3);
  try {
    sf::Buffer tooBig(8388609);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=8388608; index=8388609");
  }
  EXPECT_TRUE(
      hasThrowSite(log, "buffer alloc", "Xbounds(max_alloc, static_cast<int>(sz))", "buffer.cpp"));

  sf::Buffer b;
  b.append("keep");
  try {
    b.extend(8388609);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.range, 8388608);
    EXPECT_EQ(x.index, 8388609);
  }
  EXPECT_TRUE(
      hasThrowSite(log, "extend", "Xbounds(max_alloc, static_cast<int>(ix))", "buffer.cpp"));
  // A refused growth leaves the buffer as it was.
  EXPECT_EQ(contents(b), "keep");
  EXPECT_EQ(b.capacity, 4u);
  // append and resize grow through the same check.
  EXPECT_THROW(b.resize(9000000), sf::Xbounds);
  EXPECT_EQ(b.size(), 4u);

  // The hint text is composed and dropped: nothing in the log mentions it.
  for (const sftest::Record& r : log.records()) EXPECT_EQ(r.msg.find("HINT"), std::string::npos);
}

TEST(Buffer, InsertAndRemoveEditInPlace) {
  sftest::LogCapture log(3);
  sf::Buffer b;
  b.append("held");
  b.insert(0, "[");
  b.insert(b.size(), "]");  // at the end it appends
  b.insert(3, "--", 2);
  EXPECT_EQ(contents(b), "[he--ld]");
  b.insert(2, "", 0);
  EXPECT_EQ(contents(b), "[he--ld]");

  try {
    b.insert(9, "x");
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=8; index=9");
  }
  EXPECT_TRUE(hasThrowSite(log, "insert",
                           "Xbounds(static_cast<int>(used_sz), static_cast<int>(index_) )",
                           "buffer.cpp"));
  EXPECT_EQ(contents(b), "[he--ld]");

  std::uint64_t capacity = b.capacity;
  b.remove(3, 2);
  EXPECT_EQ(contents(b), "[held]");
  b.remove(0, 1);
  EXPECT_EQ(contents(b), "held]");
  b.remove(2, 0);
  EXPECT_EQ(contents(b), "held]");
  b.remove(2, 1000);  // more than the rest: cut at the position
  EXPECT_EQ(contents(b), "he");
  EXPECT_EQ(b.capacity, capacity);

  // Unlike insert, the end itself is out of range, even for nothing.
  try {
    b.remove(b.size(), 0);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=2; index=2");
  }
  EXPECT_TRUE(hasThrowSite(log, "remove",
                           "Xbounds(static_cast<int>(used_sz), static_cast<int>(index_) )",
                           "buffer.cpp"));
  b.remove(0, 2);
  EXPECT_EQ(b.size(), 0u);
  EXPECT_THROW(b.remove(0, 1), sf::Xbounds);

  // A long insert in the middle keeps both sides intact.
  sf::Buffer big;
  std::string left(3000, 'L'), right(5000, 'R'), middle(7000, 'M');
  big.append(left.data(), left.size());
  big.append(right.data(), right.size());
  big.insert(left.size(), middle.data(), middle.size());
  EXPECT_EQ(contents(big), left + middle + right);
}

TEST(Buffer, PointersGrowByOneOrRefuse) {
  sftest::LogCapture log(3);
  sf::Buffer b;
  b.append("abc");
  *b.getPtr(3) = 'd';  // writing at the end grows by exactly one
  EXPECT_EQ(contents(b), "abcd");
  b[1] = 'B';
  EXPECT_EQ(contents(b), "aBcd");
  b.getPtr(9);
  EXPECT_EQ(b.size(), 10u);
  EXPECT_EQ(b.getROPtr(9), b.data + 9);

  try {
    b.getROPtr(10);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=10; index=10");
  }
  // getROPtr lives in the library header, and its record says so.
  EXPECT_TRUE(hasThrowSite(
      log, "getRO", "Xbounds(static_cast<int>(used_sz), static_cast<int>(offset))", "sflib.h"));
}

TEST(ExtBuffer, StaysWithinCallerMemory) {
  sftest::LogCapture log(3);
  char mem[16];
  sf::ExtBuffer fixed(mem, 16, 0);
  EXPECT_EQ(fixed.data, mem);
  fixed.append("0123456789abcdef");
  EXPECT_EQ(std::string(mem, 16), "0123456789abcdef");
  try {
    fixed.append("g");
    FAIL() << "no exception";
  } catch (const sf::Xmem& x) {
    EXPECT_EQ(x.str(), "2-0 mem requested=17");
  }
  EXPECT_EQ(fixed.size(), 16u);
  EXPECT_EQ(log.messages(1),
            std::vector<std::string>{"External buffer requested 17, have 16 bytes"});
  EXPECT_TRUE(hasThrowSite(log, "mvfxdbfr", "sf::Xmem(int(nbytes))", "buffer.cpp"));
  EXPECT_THROW(fixed.insert(0, "x"), sf::Xmem);
  EXPECT_THROW(fixed.getPtr(16), sf::Xmem);

  fixed.release();  // keeps the memory, forgets the contents
  EXPECT_EQ(fixed.data, mem);
  EXPECT_EQ(fixed.capacity, 16u);
  EXPECT_EQ(fixed.size(), 0u);
  fixed.append("again");
  EXPECT_EQ(std::string(mem, 5), "again");

  // Built over existing contents; destroying it must leave the stack memory
  // alone (the sanitizer builds would report a free of it).
  {
    sf::ExtBuffer over(mem, 16, 5);
    over.remove(0, 1);
    EXPECT_EQ(std::string(over.data, over.size()), "gain");
  }
  EXPECT_EQ(std::string(mem, 4), "gain");
}

TEST(Buffer, DumpListsLowercaseHexOnAbsoluteLinesOf24) {
  sf::Buffer b;
  for (int i = 0; i < 30; ++i) b.append(std::string(1, static_cast<char>(i + 0xe0)).c_str(), 1);
  std::string row0, row1;
  for (int i = 0; i < 24; ++i) row0 += hexByte(i + 0xe0);
  for (int i = 24; i < 30; ++i) row1 += hexByte(i + 0xe0);
  EXPECT_EQ(captureStream([&](FILE* f) { b.dump(f, 0); }), "\n" + row0 + "\n" + row1 + "\n");
  // From 20 the first line is short: lines break at absolute multiples of 24.
  EXPECT_EQ(captureStream([&](FILE* f) { b.dump(f, 20); }),
            row0.substr(20 * 3) + "\n" + row1 + "\n");
  EXPECT_EQ(captureStream([&](FILE* f) { b.dump(f, 30); }), "\n");
  EXPECT_EQ(captureStream([&](FILE* f) { b.dump(f, 99); }), "\n");
}

TEST(Buffer, DumpBinShowsOffsetsHexAndPrintableBytes) {
  const std::string blankHex(48, ' '), blankChars(16, ' ');
  sf::Buffer b;
  b.append("ABCDEFGHIJKLMNOP");
  EXPECT_EQ(captureStream([&](FILE* f) { b.dumpBin(f, 0); }),
            "0x00000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP\n"
            "0x00010: " +
                blankHex + blankChars + "\n");

  // Bytes 20..127 print as themselves (20 decimal, not the space), others
  // as dots; positions past the end are blank.
  const unsigned char odd[] = {19, 20, 32, 126, 127, 128, 255, 0, 'z'};
  sf::Buffer c;
  c.append("xy");
  c.append(odd, sizeof odd);
  std::string expected = "0x00000: 13 14 20 7E 7F 80 FF 00 7A " + std::string(7 * 3, ' ') + "." +
                         std::string(1, 20) + " ~" + std::string(1, 127) + "...z" +
                         std::string(7, ' ') + "\n";
  EXPECT_EQ(captureStream([&](FILE* f) { c.dumpBin(f, 2); }), expected);

  // Nothing to show: a single line of blanks.
  sf::Buffer none(8);
  EXPECT_EQ(captureStream([&](FILE* f) { none.dumpBin(f, 0); }),
            "0x00000: " + blankHex + blankChars + "\n");
}
