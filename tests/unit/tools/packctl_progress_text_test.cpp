#include <gmock/gmock.h>

#include <limits>

#include "tools/packctl/view/progress_text.h"

namespace orbamira::packctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::int64_t kMiB = std::int64_t{1} << 20;

TEST(FormatBytesTest, CountsBytesBelowOneKibibyte) {
  EXPECT_EQ(FormatBytes(0), "0 B");
  EXPECT_EQ(FormatBytes(1023), "1023 B");
}

TEST(FormatBytesTest, PicksTheUnitThatKeepsTheNumberBelow1024) {
  EXPECT_EQ(FormatBytes(1024), "1.0 KiB");
  EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
  EXPECT_EQ(FormatBytes(68 * kMiB), "68.0 MiB");
  EXPECT_EQ(FormatBytes(std::int64_t{5} << 30), "5.0 GiB");
}

TEST(FormatBytesTest, NeverShows1024OfAUnit) {
  EXPECT_EQ(FormatBytes(kMiB - 1), "1.0 MiB");
  EXPECT_EQ(FormatBytes(kMiB - 100), "1023.9 KiB");
}

TEST(FormatBytesTest, TakesTheWholeRangeOfItsType) {
  EXPECT_EQ(FormatBytes(std::numeric_limits<std::int64_t>::max()), "8.0 EiB");
  EXPECT_EQ(FormatBytes(-5), "0 B");
}

TEST(FormatRateTest, IsASizePerSecond) { EXPECT_EQ(FormatRate(4.2 * kMiB), "4.2 MiB/s"); }

TEST(FormatProgressTest, ShowsTheTotalAndTheShareWhereTheyAreKnown) {
  EXPECT_EQ(FormatProgress({.now = 3 * kMiB, .total = 4 * kMiB}), "3.0 MiB of 4.0 MiB (75 %)");
  EXPECT_EQ(FormatProgress({.now = 512, .total = 0}), "512 B");
}

TEST(FormatDurationTest, ShowsHoursOnlyWhenThereAreAny) {
  EXPECT_EQ(FormatDuration(seconds(0)), "0:00");
  EXPECT_EQ(FormatDuration(seconds(65)), "1:05");
  EXPECT_EQ(FormatDuration(seconds(3599)), "59:59");
  EXPECT_EQ(FormatDuration(seconds(3661)), "1:01:01");
}

TEST(FormatDurationTest, GivesUpBeyondFourDays) {
  EXPECT_EQ(FormatDuration(seconds(100 * 3600 - 1)), "99:59:59");
  EXPECT_EQ(FormatDuration(seconds(100 * 3600)), "over 99 h");
}

TEST(FormatDurationTest, TakesANegativeSpanForNone) { EXPECT_EQ(FormatDuration(seconds(-3)), "0:00"); }

TEST(FormatBarTest, IsEmptyAtTheStartAndFullAtTheEnd) {
  EXPECT_EQ(FormatBar(0, 12), "[          ]");
  EXPECT_EQ(FormatBar(1, 12), "[==========]");
}

TEST(FormatBarTest, EndsInAnArrowInBetween) { EXPECT_EQ(FormatBar(0.5, 12), "[====>     ]"); }

TEST(FormatBarTest, KeepsItsWidthForAnyFraction) {
  for (const double fraction : {-1.0, 0.0, 0.01, 0.33, 0.99, 1.0, 7.0}) {
    EXPECT_EQ(FormatBar(fraction, 17).size(), 17U) << fraction;
  }
}

TEST(DownloadProgressTest, PercentIsCutNotRounded) {
  EXPECT_EQ((DownloadProgress{999, 1000}.Percent()), 99);
  EXPECT_EQ((DownloadProgress{1000, 1000}.Percent()), 100);
}

TEST(DownloadProgressTest, FractionStaysWithinBoundsWhateverTheServerClaims) {
  EXPECT_EQ((DownloadProgress{2000, 1000}.Fraction()), 1.0);
  EXPECT_EQ((DownloadProgress{-5, 1000}.Fraction()), 0.0);
  EXPECT_EQ((DownloadProgress{5, 0}.Fraction()), 0.0);
}

TEST(FormatDownloadTest, ShowsEverythingOnAWideLine) {
  EXPECT_EQ(FormatDownload({34 * kMiB, 68 * kMiB, 2.0 * kMiB}, 100),
            "  34.0 MiB of 68.0 MiB [===================>                    ]  50%     2.0 MiB/s  0:17 left");
}

TEST(FormatDownloadTest, LeavesRateAndTimeOutWhileTheyAreUnknown) {
  EXPECT_EQ(FormatDownload({34 * kMiB, 68 * kMiB}, 40), "  34.0 MiB of 68.0 MiB [====>     ]  50%");
}

TEST(FormatDownloadTest, LeavesTheTimeOutWhenNothingArrives) {
  EXPECT_THAT(FormatDownload({34 * kMiB, 68 * kMiB, 0.0}, 100), EndsWith("0 B/s"));
}

TEST(FormatDownloadTest, DropsTheLessImportantAsTheLineGetsNarrower) {
  const DownloadProgress progress{34 * kMiB, 68 * kMiB, 2.0 * kMiB};
  EXPECT_THAT(FormatDownload(progress, 60), EndsWith("2.0 MiB/s"));
  EXPECT_THAT(FormatDownload(progress, 60), HasSubstr("]"));
  EXPECT_EQ(FormatDownload(progress, 45), "  34.0 MiB of 68.0 MiB  50%     2.0 MiB/s");
  EXPECT_EQ(FormatDownload(progress, 30), "  34.0 MiB of 68.0 MiB  50%");
  EXPECT_EQ(FormatDownload(progress, 10), " 50%");
  EXPECT_EQ(FormatDownload(progress, 0), "");
}

TEST(FormatDownloadTest, NeverExceedsTheLine) {
  for (int columns = 0; columns < 200; ++columns) {
    for (const std::int64_t total : {std::int64_t{0}, 68 * kMiB, std::int64_t{1} << 62}) {
      for (const double rate : {0.0, 1.0, 5e9}) {
        EXPECT_LE(FormatDownload({kMiB - 1024, total, rate}, columns).size(), static_cast<std::size_t>(columns));
      }
    }
  }
}

TEST(FormatDownloadTest, ShowsBytesAndRateWhenTheTotalIsUnknown) {
  EXPECT_EQ(FormatDownload({34 * kMiB, 0, 2.0 * kMiB}, 80), "  34.0 MiB     2.0 MiB/s");
  EXPECT_EQ(FormatDownload({34 * kMiB, 0}, 80), "34.0 MiB");
  EXPECT_THAT(FormatDownload({34 * kMiB, 0, 2.0 * kMiB}, 80), Not(HasSubstr("%")));
}

TEST(ShortenTest, CutsWhatIsTooLong) {
  EXPECT_EQ(Shorten("twelve", 3), "twe");
  EXPECT_EQ(Shorten("twelve", 6), "twelve");
}

TEST(RateMeterTest, KnowsNoRateFromOneSample) {
  RateMeter meter;
  meter.Add(100, RateMeter::Clock::time_point(seconds(1)));
  EXPECT_FALSE(meter.rate());
}

TEST(RateMeterTest, IsTheGrowthPerSecond) {
  RateMeter meter;
  meter.Add(0, RateMeter::Clock::time_point(seconds(1)));
  meter.Add(3000, RateMeter::Clock::time_point(seconds(3)));
  EXPECT_DOUBLE_EQ(meter.rate().value(), 1500);
}

TEST(RateMeterTest, CountsTheTimeSinceTheLastChangeWhenTheCountStandsStillInBetween) {
  RateMeter meter;
  meter.Add(0, RateMeter::Clock::time_point(seconds(0)));
  for (int tick = 1; tick < 10; ++tick) {
    meter.Add(0, RateMeter::Clock::time_point(milliseconds(tick * 200)));
  }
  meter.Add(2000, RateMeter::Clock::time_point(seconds(2)));
  EXPECT_DOUBLE_EQ(meter.rate().value(), 1000);
}

TEST(RateMeterTest, FollowsAChangeOfSpeedSlowly) {
  RateMeter meter;
  meter.Add(0, RateMeter::Clock::time_point(seconds(0)));
  meter.Add(1000, RateMeter::Clock::time_point(seconds(1)));
  meter.Add(10000, RateMeter::Clock::time_point(seconds(2)));
  EXPECT_GT(meter.rate().value(), 1000);
  EXPECT_LT(meter.rate().value(), 5000);
  std::int64_t bytes = 10000;
  for (int second = 3; second < 60; ++second) {
    bytes += 9000;
    meter.Add(bytes, RateMeter::Clock::time_point(seconds(second)));
  }
  EXPECT_NEAR(meter.rate().value(), 9000, 1);
}

TEST(RateMeterTest, StartsAnewWhenTheCountShrinks) {
  RateMeter meter;
  meter.Add(5000, RateMeter::Clock::time_point(seconds(0)));
  meter.Add(6000, RateMeter::Clock::time_point(seconds(1)));
  meter.Add(0, RateMeter::Clock::time_point(seconds(2)));
  EXPECT_FALSE(meter.rate());
  meter.Add(500, RateMeter::Clock::time_point(seconds(3)));
  EXPECT_DOUBLE_EQ(meter.rate().value(), 500);
}

}  // namespace
}  // namespace orbamira::packctl
