// Which release an appliance is offered, where the reply has more than one.

#include <gmock/gmock.h>
#include <json/reader.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/packctl/policy/release_choice.h"
#include "tools/packctl/policy/share.h"
#include "tools/packctl/view/release_words.h"

namespace orbamira::packctl {
namespace {

constexpr int kMany = 100'000;
constexpr const char* kInHalf = "nas-1";     // its number for 1.2.0 is 41.72… % of all
constexpr const char* kNotInHalf = "nas-2";  // 85.30… %

std::string Release(const std::string& version, const std::string& more = "") {
  return R"({"version": ")" + version + R"(", "link": "http://x/)" + version + R"(", "checksum": "c")" + more + "}";
}

Json::Value Pack(const std::string& staged, const std::string& more = "") {
  Json::Value value;
  std::istringstream(Release("1.1.0", R"(, "staged": )" + staged + more)) >> value;
  return value;
}

std::string Chosen(const Json::Value& pack, const Audience& audience) {
  return ChooseRelease(pack, audience).offer["version"].asString();
}

std::vector<bool> Shares(const std::string& version, double percent) {
  std::vector<bool> inside;
  for (int number = 0; number < kMany; ++number) {
    inside.push_back(IsInShare("NAS-" + std::to_string(number), version, percent));
  }
  return inside;
}

TEST(ShareTest, NumbersAreThoseOfNginx) {
  EXPECT_EQ(ShareNumber("nas-1", "1.2.0"), 1792212103U);
  EXPECT_EQ(ShareNumber("nas-2", "1.2.0"), 3663847308U);
}

TEST(ShareTest, IsWhatWasAskedFor) {
  for (const double percent : {0.5, 5.0, 25.0, 50.0, 99.5}) {
    const std::vector<bool> inside = Shares("1.2.0", percent);
    EXPECT_NEAR(100.0 * static_cast<double>(std::ranges::count(inside, true)) / kMany, percent, 0.5);
  }
}

TEST(ShareTest, OnlyGrows) {
  std::vector<bool> before(kMany, false);
  for (const double percent : {0.01, 1.0, 10.0, 10.01, 60.0, 100.0}) {
    const std::vector<bool> now = Shares("1.2.0", percent);
    for (std::size_t place = 0; place < now.size(); ++place) {
      ASSERT_LE(before[place], now[place]);
    }
    before = now;
  }
  EXPECT_EQ(std::ranges::count(before, true), kMany);
}

TEST(ShareTest, BeginsWithOthersForEachVersion) {
  const std::vector<bool> first = Shares("1.2.0", 10);
  const std::vector<bool> second = Shares("1.3.0", 10);
  int both = 0;
  for (std::size_t place = 0; place < first.size(); ++place) {
    both += first[place] && second[place] ? 1 : 0;
  }
  EXPECT_NEAR(100.0 * both / kMany, 1, 0.5);
}

TEST(ShareTest, OfNothingIsEmptyAndOfEverythingWhole) {
  for (const double percent : {0.0, -1.0, 0.001}) {
    EXPECT_FALSE(IsInShare(kInHalf, "1.2.0", percent)) << percent;
  }
  for (const double percent : {100.0, 1000.0}) {
    EXPECT_TRUE(IsInShare(kNotInHalf, "1.2.0", percent)) << percent;
  }
}

TEST(ReleaseChoiceTest, StagedReleaseIsForItsShare) {
  const Json::Value pack = Pack("[" + Release("1.2.0", R"(, "rollout": 50)") + "]");
  EXPECT_EQ(Chosen(pack, {.unique = kInHalf}), "1.2.0");
  const ReleaseChoice other = ChooseRelease(pack, {.unique = kNotInHalf});
  EXPECT_EQ(other.offer["version"], "1.1.0");
  EXPECT_EQ(other.left_out, (StagedRelease{"1.2.0", 50}));
  EXPECT_EQ(ChooseRelease(pack, {.unique = kInHalf}).left_out, std::nullopt);
}

TEST(ReleaseChoiceTest, OfferHasAllOfItsRelease) {
  const Json::Value pack = Pack("[" + Release("1.2.0", R"(, "rollout": 50, "security": true)") + "]");
  EXPECT_EQ(ChooseRelease(pack, {.unique = kInHalf}).offer["security"], true);
  EXPECT_EQ(ChooseRelease(pack, {.unique = kInHalf}).offer["link"], "http://x/1.2.0");
  EXPECT_FALSE(ChooseRelease(pack, {.unique = kNotInHalf}).offer.isMember("security"));
}

TEST(ReleaseChoiceTest, WhoAsksForItGetsItOutsideOfItsShare) {
  const Json::Value pack = Pack("[" + Release("1.2.0", R"(, "rollout": 50)") + "]");
  const ReleaseChoice choice = ChooseRelease(pack, {.unique = kNotInHalf, .takes_all = true});
  EXPECT_EQ(choice.offer["version"], "1.2.0");
  EXPECT_EQ(choice.left_out, std::nullopt);
}

TEST(ReleaseChoiceTest, ChannelIsForItsAppliancesAlone) {
  const Json::Value pack = Pack("[" + Release("1.2.0", R"(, "channel": "beta")") + "]");
  EXPECT_EQ(Chosen(pack, {.unique = kInHalf, .channel = "beta"}), "1.2.0");
  for (const char* const channel : {"", "alpha", "Beta"}) {
    const ReleaseChoice choice = ChooseRelease(pack, {.unique = kInHalf, .channel = channel, .takes_all = true});
    EXPECT_EQ(choice.offer["version"], "1.1.0") << channel;
    EXPECT_EQ(choice.left_out, std::nullopt) << channel;
  }
}

TEST(ReleaseChoiceTest, NewestCounts) {
  const Json::Value pack =
      Pack("[" + Release("1.3.0", R"(, "channel": "beta")") + "," + Release("1.2.0", R"(, "rollout": 50)") + "," +
           Release("1.0.0", R"(, "rollout": 50)") + "]");
  EXPECT_EQ(Chosen(pack, {.unique = kInHalf, .channel = "beta"}), "1.3.0");
  EXPECT_EQ(Chosen(pack, {.unique = kInHalf}), "1.2.0");
  EXPECT_EQ(Chosen(pack, {.unique = kNotInHalf}), "1.1.0");
}

TEST(ReleaseChoiceTest, EntryThatIsNoReleaseIsPassedOver) {
  for (const char* const entry :
       {"1", "null", "{}", R"({"version": "1.2.0"})", R"({"version": "1.2.0", "link": "http://x/y"})",
        R"({"version": 2, "link": "http://x/y", "checksum": "c"})",
        R"({"version": "1.2.0", "link": "l", "checksum": "c", "rollout": "100"})",
        R"({"version": "1.2.0", "link": "l", "checksum": "c", "channel": 1})"}) {
    const ReleaseChoice choice = ChooseRelease(Pack(std::string("[") + entry + "]"), {.unique = kInHalf});
    EXPECT_EQ(choice.offer["version"], "1.1.0") << entry;
    EXPECT_EQ(choice.left_out, std::nullopt) << entry;
  }
  EXPECT_EQ(Chosen(Pack("{}", R"(, "withdrawn": ["1.0"])"), {.unique = kInHalf}), "1.1.0");
}

TEST(ReleaseChoiceTest, WithdrawnVersionsAreNamed) {
  const Json::Value pack = Pack("[]", R"(, "withdrawn": [1, "1.2.0", "", "1.3.0"])");
  EXPECT_EQ(WithdrawnVersions(pack), (std::set<std::string>{"1.2.0", "1.3.0"}));
  EXPECT_EQ(WithdrawnVersions(Pack("[]", R"(, "withdrawn": "1.2.0")")), std::set<std::string>());
  EXPECT_EQ(WithdrawnVersions(Json::Value("text")), std::set<std::string>());
}

TEST(ReleaseWordsTest, TellWhatLeadsOn) {
  EXPECT_EQ(OtherReleasesLines({}), "");
  EXPECT_EQ(OtherReleasesLines({.staged = StagedRelease{"1.2\n", 12.5}, .withdrawn = "1.1"}),
            "1.2\\012 is offered to 12.5 % of the appliances so far, and not to this one. To install it now: sudo "
            "packctl update --now\nThe maker has withdrawn 1.1. It stays until a newer release comes.\n");
}

}  // namespace
}  // namespace orbamira::packctl
