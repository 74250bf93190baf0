// Buffer and ExtBuffer: growth, ceiling, editing and the two dump layouts.
#include <gtest/gtest.h>

#include "sf/sflib.h"

TEST(Buffer, GrowsWithTwentyPercentHeadroom) {
  sf::Buffer b;
  EXPECT_EQ(b.getROPtr(0), nullptr);
  b.append("0123456789", 10);
  EXPECT_EQ(b.size(), 10u);
  EXPECT_EQ(b.capacity, 12u);
}
