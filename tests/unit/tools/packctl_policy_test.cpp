// When a pack on offer is installed by itself: what the reply says, windows of time, and the judgement.

#include <gmock/gmock.h>
#include <json/reader.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <ctime>
#include <sstream>

#include "tools/packctl/policy/decision.h"
#include "tools/packctl/policy/offer_note.h"
#include "tools/packctl/policy/pack_users.h"
#include "tools/packctl/view/wait_words.h"

namespace orbamira::packctl {
namespace {

using testing::ElementsAre;
using testing::Optional;

constexpr std::time_t kHour = 60L * 60;
constexpr std::time_t kDay = 24 * kHour;

Json::Value Json(const std::string& text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

/// The machine's time zone, for as long as it lives.
class ZoneOf {
 public:
  explicit ZoneOf(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ZoneOf() {
    unsetenv("TZ");
    tzset();
  }
  ZoneOf(const ZoneOf&) = delete;
  ZoneOf& operator=(const ZoneOf&) = delete;
};

// Written as its rules, so that no zone database is needed: the last Sundays of March and October.
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";

std::time_t Utc(int year, int month, int day, int hour, int minute = 0) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  return timegm(&parts);
}

std::vector<TimeWindow> Windows(const std::string& text) { return ParseTimeWindows(text).value(); }

TEST(OfferTest, ReadsWhatOnlyPackctlReads) {
  EXPECT_EQ(ReadOffer(Json(R"({"version": "1.1", "security": true})")), (Offer{.version = "1.1", .security = true}));
  EXPECT_EQ(ReadOffer(Json(R"({"version": "1.1"})")), (Offer{.version = "1.1"}));
}

TEST(OfferTest, MemberOfAnotherTypeCountsAsMissing) {
  EXPECT_EQ(ReadOffer(Json(R"({"version": 1, "security": "true"})")), Offer());
  EXPECT_EQ(ReadOffer(Json("[]")), Offer());
}

TEST(TimeWindowTest, SeveralAreSeparatedByCommasOrBlanks) {
  EXPECT_THAT(Windows("02:00-05:00"), ElementsAre(TimeWindow{120, 300}));
  EXPECT_THAT(Windows("02:00-05:00, 12:30-13:00 22:00-24:00"),
              ElementsAre(TimeWindow{120, 300}, TimeWindow{750, 780}, TimeWindow{1320, 1440}));
}

TEST(TimeWindowTest, OtherTextsAreNone) {
  for (const char* text : {"", " ", "2:00-5:00", "02:00", "02:00-", "02:00-25:00", "02:60-03:00", "24:00-01:00",
                           "02:00-02:00", "02:00-05:00;", "+2:00-05:00", "02:00-24:01", "noon"}) {
    EXPECT_FALSE(ParseTimeWindows(text)) << text;
  }
}

TEST(TimeWindowTest, BeginsWithItsFirstMinuteAndEndsBeforeItsLast) {
  const ZoneOf zone("UTC0");
  const auto windows = Windows("02:00-05:00");
  EXPECT_FALSE(IsInside(windows, Utc(2026, 6, 1, 2) - 1));
  EXPECT_TRUE(IsInside(windows, Utc(2026, 6, 1, 2)));
  EXPECT_TRUE(IsInside(windows, Utc(2026, 6, 1, 5) - 1));
  EXPECT_FALSE(IsInside(windows, Utc(2026, 6, 1, 5)));
}

TEST(TimeWindowTest, MayGoAcrossMidnight) {
  const ZoneOf zone("UTC0");
  const auto windows = Windows("23:00-01:00");
  EXPECT_TRUE(IsInside(windows, Utc(2026, 6, 1, 23, 30)));
  EXPECT_TRUE(IsInside(windows, Utc(2026, 6, 1, 0, 30)));
  EXPECT_FALSE(IsInside(windows, Utc(2026, 6, 1, 1)));
  EXPECT_THAT(NextBegin(windows, Utc(2026, 6, 1, 12)), Optional(Utc(2026, 6, 1, 23)));
}

TEST(TimeWindowTest, IsTheClockOnTheWalls) {
  const ZoneOf zone(kBerlin);
  const auto windows = Windows("02:00-05:00");
  EXPECT_TRUE(IsInside(windows, Utc(2026, 1, 10, 1)));
  EXPECT_FALSE(IsInside(windows, Utc(2026, 1, 10, 0)));
  EXPECT_TRUE(IsInside(windows, Utc(2026, 7, 10, 0)));
  EXPECT_THAT(NextBegin(windows, Utc(2026, 7, 10, 12)), Optional(Utc(2026, 7, 11, 0)));
}

TEST(TimeWindowTest, HourThatTheClocksRepeatIsInsideTwice) {
  const ZoneOf zone(kBerlin);
  const auto windows = Windows("02:00-03:00");
  EXPECT_TRUE(IsInside(windows, Utc(2026, 10, 25, 0, 30)));
  EXPECT_TRUE(IsInside(windows, Utc(2026, 10, 25, 1, 30)));
  EXPECT_FALSE(IsInside(windows, Utc(2026, 10, 25, 2)));
}

TEST(TimeWindowTest, HourThatTheClocksSkipIsThereTheNextDay) {
  const ZoneOf zone(kBerlin);
  const auto windows = Windows("02:00-03:00");
  const std::time_t before = Utc(2026, 3, 29, 0, 30);
  EXPECT_THAT(NextBegin(windows, before), Optional(Utc(2026, 3, 30, 0)));
}

TEST(TimeWindowTest, TheNearestOfSeveralComesNext) {
  const ZoneOf zone("UTC0");
  const auto windows = Windows("22:00-23:00 12:00-13:00");
  EXPECT_THAT(NextBegin(windows, Utc(2026, 6, 1, 12)), Optional(Utc(2026, 6, 1, 22)));
  EXPECT_THAT(NextBegin(windows, Utc(2026, 6, 1, 22)), Optional(Utc(2026, 6, 2, 12)));
}

class DecisionTest : public testing::Test {
 protected:
  DecisionTest() {
    situation_.settings.policy = updater::kPolicyAutoDownloadAutoInstall;
    situation_.first_seen = Utc(2026, 6, 1, 12);
    situation_.now = situation_.first_seen + kHour;
  }

  void ExpectNow() { EXPECT_EQ(WhyWait(situation_), std::nullopt); }

  void ExpectWait(FailureReason reason, std::optional<std::time_t> until, bool may_download) {
    EXPECT_THAT(WhyWait(situation_), Optional(Wait{reason, until, may_download}));
  }

  ZoneOf zone_{"UTC0"};
  Situation situation_;
};

TEST_F(DecisionTest, InstallsByItselfWhereThePolicySaysSo) { ExpectNow(); }

TEST_F(DecisionTest, RefusedPackageWaitsForAnotherOne) {
  situation_.offer.security = true;
  situation_.refusal = RefusedPackage{.message = "not signed", .time = situation_.now - kHour};
  const std::time_t end = situation_.now - kHour + 30 * kDay;
  const Wait wait{.reason = FailureReason::kPackageRefused, .until = end, .because = "not signed"};
  EXPECT_THAT(WhyWait(situation_), Optional(wait));
  EXPECT_EQ(ExplainWait("1.1", wait).remedy, "To try again, run: sudo packctl update");
  situation_.now = end;
  ExpectNow();
  situation_.now = situation_.refusal->time - 1;  // the clock was wrong
  ExpectNow();
}

TEST_F(DecisionTest, PolicyLeavesToAPersonWhatItSays) {
  situation_.settings.policy = updater::kPolicyAutoDownloadManualInstall;
  ExpectWait(FailureReason::kWaitsForPerson, std::nullopt, true);
  situation_.settings.policy = updater::kPolicyManualDownloadManualInstall;
  ExpectWait(FailureReason::kWaitsForPerson, std::nullopt, false);
  situation_.now += 1000 * kDay;
  ExpectWait(FailureReason::kWaitsForPerson, std::nullopt, false);
}

TEST_F(DecisionTest, HoldKeepsEverythingAwayUntilItsEnd) {
  situation_.hold = Hold{};
  ExpectWait(FailureReason::kHeld, std::nullopt, false);
  situation_.hold = Hold{.until = situation_.now + kDay};
  ExpectWait(FailureReason::kHeld, situation_.now + kDay, false);
  situation_.now += kDay;
  ExpectNow();
}

TEST_F(DecisionTest, WaitsForTheWindowWithThePackageReady) {
  situation_.settings.windows = Windows("02:00-05:00");
  ExpectWait(FailureReason::kOutsideWindow, Utc(2026, 6, 2, 2), true);
  situation_.now = Utc(2026, 6, 2, 2);
  ExpectNow();
}

TEST_F(DecisionTest, WaitsForProgramsThatUseThePack) {
  situation_.is_in_use = [] { return true; };
  ExpectWait(FailureReason::kInUse, situation_.first_seen + 7 * kDay, true);
  situation_.is_in_use = [] { return false; };
  ExpectNow();
}

// It takes a look at every process.
TEST_F(DecisionTest, AsksForProgramsOnlyWhereItMatters) {
  situation_.is_in_use = [] {
    ADD_FAILURE() << "asked";
    return true;
  };
  situation_.hold = Hold{};
  ExpectWait(FailureReason::kHeld, std::nullopt, false);
  situation_.hold.reset();
  situation_.now = situation_.first_seen + 7 * kDay;
  ExpectNow();
}

// The window may fall into hours in which the machine is always off.
TEST_F(DecisionTest, WaitsForAGoodMomentOnlySoManyDays) {
  situation_.settings.windows = Windows("02:00-05:00");
  situation_.settings.most_wait = std::chrono::days(2);
  situation_.is_in_use = [] { return true; };
  situation_.now = situation_.first_seen + 2 * kDay - 1;
  ExpectWait(FailureReason::kOutsideWindow, situation_.first_seen + 2 * kDay, true);
  situation_.now += 1;
  ExpectNow();
}

TEST_F(DecisionTest, SecurityReleaseIsInstalledWhateverThePolicy) {
  situation_.settings.policy = updater::kPolicyManualDownloadManualInstall;
  situation_.offer.security = true;
  ExpectNow();
}

TEST_F(DecisionTest, OwnerMayOptOutOfSecurityReleases) {
  situation_.settings.policy = updater::kPolicyManualDownloadManualInstall;
  situation_.settings.installs_security = false;
  situation_.offer.security = true;
  ExpectWait(FailureReason::kWaitsForPerson, std::nullopt, false);
  situation_.now += 1000 * kDay;
  ExpectWait(FailureReason::kWaitsForPerson, std::nullopt, false);
}

TEST_F(DecisionTest, SecurityReleaseWaitsNoLongerThanItsBound) {
  situation_.offer.security = true;
  situation_.hold = Hold{};
  const std::time_t bound = situation_.first_seen + 3 * kDay;
  ExpectWait(FailureReason::kHeld, bound, false);
  situation_.hold->until = situation_.now + kHour;
  ExpectWait(FailureReason::kHeld, situation_.now + kHour, false);
  situation_.hold.reset();
  situation_.is_in_use = [] { return true; };
  ExpectWait(FailureReason::kInUse, bound, true);
  situation_.hold = Hold{};
  situation_.now = bound;
  ExpectNow();
}

TEST_F(DecisionTest, SecurityReleaseWaitsNoLongerThanAnyOther) {
  situation_.offer.security = true;
  situation_.settings.most_wait = std::chrono::days(1);
  situation_.is_in_use = [] { return true; };
  ExpectWait(FailureReason::kInUse, situation_.first_seen + kDay, true);
}

TEST(OfferNoteTest, SameOfferWaitsSinceItWasFirstSeen) {
  const std::time_t now = Utc(2026, 6, 10, 0);
  const OfferNote before{.offer = {.version = "1.1"}, .first_seen = now - kDay, .told = "held"};
  EXPECT_EQ(Noted({.version = "1.1"}, before, now, "1.0"), before);
  EXPECT_EQ(Noted({.version = "1.2"}, before, now, "1.0"), (OfferNote{{.version = "1.2"}, now, ""}));
  EXPECT_EQ(Noted({.version = "1.2"}, std::nullopt, now, "1.0"), (OfferNote{{.version = "1.2"}, now, ""}));
}

TEST(OfferNoteTest, RefusalCountsForTheSamePackageAlone) {
  const Offer offer{.version = "1.1", .link = "a", .checksum = "1"};
  const OfferNote before{
      .offer = offer, .first_seen = Utc(2026, 11, 1, 12), .refusal = RefusedPackage{"not signed", 1, "b"}};
  EXPECT_EQ(Noted(offer, before, before.first_seen, "1.0").refusal, before.refusal);
  for (const Offer& other :
       {Offer{.version = "1.2", .link = "a", .checksum = "1"}, Offer{.version = "1.1", .link = "b", .checksum = "1"},
        Offer{.version = "1.1", .link = "a", .checksum = "2"}}) {
    EXPECT_EQ(Noted(other, before, before.first_seen, "1.0").refusal, std::nullopt);
  }
}

TEST(OfferNoteTest, TimeOfAWrongClockCountsAsNow) {
  const std::time_t now = Utc(2026, 6, 10, 0);
  for (const std::time_t wrong : {std::time_t{5}, now + 1, Utc(2025, 12, 31, 0)}) {
    EXPECT_EQ(Noted({.version = "1.1"}, OfferNote{{.version = "1.1"}, wrong}, now, "1.0").first_seen, now) << wrong;
  }
}

TEST(OfferNoteTest, NewerOfferIsHeirToASecurityRelease) {
  const std::time_t now = Utc(2026, 6, 10, 0);
  const OfferNote before{.offer = {.version = "1.1", .security = true}, .first_seen = now - kDay, .told = "held"};
  EXPECT_EQ(Noted({.version = "1.2"}, before, now, "1.0"),
            (OfferNote{{.version = "1.2", .security = true}, now - kDay, ""}));
  EXPECT_EQ(Noted({.version = "1.1"}, before, now, "1.0"), before);
  EXPECT_EQ(Noted({.version = "1.0"}, before, now, "1.0"), (OfferNote{{.version = "1.0"}, now, ""}));
}

// Another program than packctl installed the security release, and left its note.
TEST(OfferNoteTest, NewerOfferIsNoHeirToWhatIsInstalled) {
  const std::time_t now = Utc(2026, 6, 10, 0);
  const OfferNote before{.offer = {.version = "1.1", .security = true}, .first_seen = now - kDay, .told = "held"};
  for (const char* installed : {"1.1", "1.1.1"}) {
    EXPECT_EQ(Noted({.version = "1.2"}, before, now, installed), (OfferNote{{.version = "1.2"}, now, ""})) << installed;
  }
  EXPECT_TRUE(Noted({.version = "1.2"}, before, now, "").offer.security);
}

TEST(OfferNoteTest, DaysOfAReleaseThatIsMarkedLaterCountFromThen) {
  const std::time_t now = Utc(2026, 6, 10, 0);
  const OfferNote before{.offer = {.version = "1.1"}, .first_seen = now - 30 * kDay};
  EXPECT_EQ(Noted({.version = "1.1", .security = true}, before, now, "1.0").first_seen, now);
}

TEST(PackUsersTest, FilesAreKnownByDeviceAndInodeOrByName) {
  const PackFiles pack{.folder = "/pack", .files = {{makedev(0xfe, 1), 265}}};
  const auto are_mapped = [&pack](const std::string& lines) {
    std::istringstream maps(lines);
    return AreMapped(pack, maps);
  };
  const std::string other = "7f00-7f01 r-xp 00000000 fe:02 265                  /usr/lib/libc.so\n";
  EXPECT_FALSE(
      are_mapped(other + "7f00-7f01 rw-p 00000000 00:00 0 \n7f00-7f01 rw-p 00000000 00:00 0  [heap]\nnonsense\n"));
  EXPECT_TRUE(are_mapped(other + "7f00-7f01 r-xp 00000000 fe:01 265                  /elsewhere/x (deleted)\n"));
  EXPECT_TRUE(are_mapped(other + "7f00-7f01 r-xp 00000000 00:2a 9                    /pack/with blank.so\n"));
  EXPECT_FALSE(are_mapped(other + "7f00-7f01 r-xp 00000000 00:2a 9                   /pack/old.so (deleted)\n"));
  EXPECT_FALSE(are_mapped(other + "7f00-7f01 r-xp 00000000 00:2a 9                   /package/x.so\n"));
}

TEST(WaitWordsTest, TellWhyAndUntilWhenAndWhatLeadsOn) {
  const ZoneOf zone("UTC0");
  EXPECT_EQ(ExplainWait("1.1", {.reason = FailureReason::kOutsideWindow, .until = Utc(2026, 6, 2, 2)}),
            (Failure{"outside_window",
                     "1.1 waits: it is installed in its window of time, until 2026-06-02 02:00:00 UTC at the latest",
                     "Run: sudo packctl update"}));
  EXPECT_EQ(ExplainWait("1.1", {.reason = FailureReason::kHeld}),
            (Failure{"held", "1.1 waits: updates are held", "Run: sudo packctl unhold"}));
}

}  // namespace
}  // namespace orbamira::packctl
