#include "platform/as_long.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace orbamira {
namespace {

using Limits = std::numeric_limits<long>;

TEST(AsLongTest, KeepsWhatALongHolds) {
  EXPECT_EQ(AsLong(0), 0);
  EXPECT_EQ(AsLong(Limits::max()), Limits::max());
  EXPECT_EQ(AsLong(Limits::min()), Limits::min());
}

// On a processor of 32 bits this is the greatest long, which a plain conversion would make negative.
TEST(AsLongTest, GivesTheNearestOfWhatItDoesNotHold) {
  EXPECT_EQ(AsLong(std::numeric_limits<std::int64_t>::max()), Limits::max());
  EXPECT_EQ(AsLong(std::numeric_limits<std::int64_t>::min()), Limits::min());
}

}  // namespace
}  // namespace orbamira
