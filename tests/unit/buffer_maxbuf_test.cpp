// The sf.maxbuf ceiling is fixed once per process, by the constructor and by
// extend separately. This needs a process in which no Buffer has been
// allocated yet, so it is a program of its own.
#include <gtest/gtest.h>

#include "sf/sflib.h"
#include "support/testsupport.h"

TEST(BufferCeiling, ReadOnceIntoTwoSeparateCaches) {
  sftest::ensureInterp();
  sf::setVarInt("sf.maxbuf", 100);
  sf::Buffer first(100);  // the constructor reads the ceiling now: 100
  try {
    sf::Buffer refused(101);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=100; index=101");
  }

  // extend has not read it yet; it sees the value at its own first use, and
  // a negative one means no ceiling.
  sf::setVarInt("sf.maxbuf", -1);
  sf::Buffer wide;
  wide.extend(20 * 1024 * 1024);
  EXPECT_EQ(wide.capacity, 24u * 1024 * 1024);
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);

  // Later changes reach neither.
  sf::setVarInt("sf.maxbuf", 1000);
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);
  sf::Buffer other;
  other.extend(30 * 1024 * 1024);
}
