// The sf.maxbuf ceiling is read once per process, by the constructor and by
// extend separately. This needs a process in which no Buffer has been
// allocated yet, so it is a program of its own.
#include <gtest/gtest.h>

#include <cstdlib>

#include "sf/sflib.h"
#include "support/testsupport.h"

TEST(BufferCeiling, ReadOnceIntoTwoSeparateCaches) {
  sftest::ensureInterp();
  sf::setVarInt("sf.maxbuf", 100);
  // The constructor reads the ceiling now and keeps 100.
  sf::Buffer first(100);
  try {
    sf::Buffer refused(101);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=100; index=101");
  }

  // extend has not read it yet: it sees the value at its own first use.
  sf::setVarInt("sf.maxbuf", 1000);
  first.extend(1000);
  EXPECT_EQ(first.capacity, 1200u);
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);
  sf::Buffer empty;
  try {
    empty.extend(1001);
    FAIL() << "no exception";
  } catch (const sf::Xbounds& x) {
    EXPECT_EQ(x.str(), "2-2 range=1000; index=1001");
  }

  // Later changes have no effect on either.
  sf::setVarInt("sf.maxbuf", -1);
  EXPECT_THROW(sf::Buffer(101), sf::Xbounds);
  EXPECT_THROW(empty.extend(1001), sf::Xbounds);
  sf::setVarStr("sf.maxbuf", "not a number");
  EXPECT_THROW(empty.extend(5000), sf::Xbounds);
  EXPECT_NO_THROW(sf::Buffer(100));
}

TEST(BufferCeiling, NegativeSettingMeansNoCeiling) {
  // A fresh process (the death-test child re-runs this program), so that no
  // cache has been filled yet.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        sftest::ensureInterp();
        sf::setVarInt("sf.maxbuf", -1);
        sf::Buffer wide(9 * 1024 * 1024);
        wide.extend(20 * 1024 * 1024);
        std::exit(wide.capacity == 24u * 1024 * 1024 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}
