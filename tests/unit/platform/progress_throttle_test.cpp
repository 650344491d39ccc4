#include "platform/http/progress_throttle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <utility>
#include <vector>

#include "platform/as_long.h"

namespace orbamira::wrapper {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::Pair;

class ProgressThrottleTest : public testing::Test {
 protected:
  // Bytes arrive every 5 milliseconds for a while; each call of the progress function takes `cost`.
  void Run(milliseconds length, milliseconds cost) {
    cost_ = cost;
    const ProgressThrottle::TimePoint end = now_ + length;
    std::int64_t received = 0;
    for (; now_ < end; now_ += milliseconds(5)) {
      throttle_.Report(++received, 0);
    }
  }

  [[nodiscard]] milliseconds LongestGap() const {
    milliseconds longest{0};
    for (std::size_t i = 1; i < begins_.size(); ++i) {
      longest = std::max(longest, std::chrono::duration_cast<milliseconds>(begins_[i] - begins_[i - 1]));
    }
    return longest;
  }

  ProgressThrottle::TimePoint now_{seconds(1000)};
  milliseconds cost_{0};
  milliseconds spent_{0};
  std::vector<ProgressThrottle::TimePoint> begins_;
  std::vector<std::pair<long, long>> calls_;
  std::function<void(long, long)> progress_ = [this](long received, long total) {
    begins_.push_back(now_);
    calls_.emplace_back(received, total);
    now_ += cost_;
    spent_ += cost_;
  };
  ProgressThrottle throttle_{&progress_, [this] { return now_; }};
};

TEST_F(ProgressThrottleTest, ReportPassesTheFirstByteOn) {
  throttle_.Report(1, 100);
  EXPECT_THAT(calls_, ElementsAre(Pair(1, 100)));
}

TEST_F(ProgressThrottleTest, ReportIsSilentUntilTheGapHasGoneBy) {
  throttle_.Report(1, 100);
  now_ += milliseconds(99);
  throttle_.Report(2, 100);
  now_ += milliseconds(1);
  throttle_.Report(3, 100);
  EXPECT_THAT(calls_, ElementsAre(Pair(1, 100), Pair(3, 100)));
}

TEST_F(ProgressThrottleTest, ReportCountsTheGapFromTheEndOfTheCall) {
  cost_ = milliseconds(2);
  throttle_.Report(1, 100);
  now_ += milliseconds(99);
  throttle_.Report(2, 100);
  now_ += milliseconds(1);
  throttle_.Report(3, 100);
  EXPECT_THAT(calls_, ElementsAre(Pair(1, 100), Pair(3, 100)));
}

TEST_F(ProgressThrottleTest, ReportRestsFortyNineTimesAsLongAsACallTook) {
  cost_ = milliseconds(10);
  throttle_.Report(1, 100);
  now_ += milliseconds(489);
  throttle_.Report(2, 100);
  now_ += milliseconds(1);
  throttle_.Report(3, 100);
  EXPECT_THAT(calls_, ElementsAre(Pair(1, 100), Pair(3, 100)));
}

TEST_F(ProgressThrottleTest, ReportCostsAtMostTwoPercentWhateverACallTakes) {
  for (const int cost : {0, 1, 2, 3, 10, 100, 1000, 5000}) {
    spent_ = milliseconds(0);
    const ProgressThrottle::TimePoint begin = now_;
    Run(seconds(3000), milliseconds(cost));
    EXPECT_LE(spent_ - milliseconds(cost), (now_ - begin) / 50) << cost << " ms";
  }
}

TEST_F(ProgressThrottleTest, ReportMovesTheBarOnceASecondWhenTheStoreIsFast) {
  for (const int cost : {0, 1, 5, 19}) {
    begins_.clear();
    Run(seconds(60), milliseconds(cost));
    EXPECT_LE(LongestGap(), seconds(1)) << cost << " ms";
    EXPECT_GE(begins_.size(), 60U) << cost << " ms";
  }
}

TEST_F(ProgressThrottleTest, ReportLastIsPassedOnWithoutAGap) {
  throttle_.Report(1, 100);
  throttle_.ReportLast(100);
  EXPECT_THAT(calls_, ElementsAre(Pair(1, 100), Pair(100, 100)));
}

TEST_F(ProgressThrottleTest, ReportLastIsNotRepeated) {
  throttle_.Report(100, 100);
  throttle_.ReportLast(100);
  EXPECT_THAT(calls_, ElementsAre(Pair(100, 100)));
}

TEST_F(ProgressThrottleTest, ReportLastTellsASizeThatWasUnknown) {
  throttle_.Report(100, 0);
  throttle_.ReportLast(100);
  EXPECT_THAT(calls_, ElementsAre(Pair(100, 0), Pair(100, 100)));
}

TEST_F(ProgressThrottleTest, ReportPassesSizesBeyondThirtyTwoBitsOn) {
  throttle_.Report(5'000'000'000, 6'000'000'000);
  EXPECT_THAT(calls_, ElementsAre(Pair(AsLong(5'000'000'000), AsLong(6'000'000'000))));
}

TEST_F(ProgressThrottleTest, ReportWithoutAFunctionDoesNothing) {
  ProgressThrottle throttle(nullptr);
  EXPECT_NO_THROW(throttle.Report(1, 2));
  EXPECT_NO_THROW(throttle.ReportLast(2));
}

TEST_F(ProgressThrottleTest, ReportWithAnEmptyFunctionDoesNothing) {
  const std::function<void(long, long)> empty;
  ProgressThrottle throttle(&empty);
  EXPECT_NO_THROW(throttle.Report(1, 2));
  EXPECT_NO_THROW(throttle.ReportLast(2));
}

}  // namespace
}  // namespace orbamira::wrapper
