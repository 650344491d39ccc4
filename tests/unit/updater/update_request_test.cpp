#include "updater/update_request.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <string>
#include <vector>

#include "platform/constants.h"
#include "tests/support/mocks.h"
#include "updater/pack_manager.h"

namespace orbamira::updater {
namespace {

using testing::InSequence;
using testing::Return;
using testing::StrictMock;

TEST(UpdateRequestTest, MakeUpdateRequestAsksTheSystemForEachPartInOrder) {
  const StrictMock<test::MockKosHelper> facts;
  const InSequence in_order;
  EXPECT_CALL(facts, GetPackUpdateServerUrl()).WillOnce(Return("http://server/update"));
  EXPECT_CALL(facts, GetVersionFromPath(kPackageInfoPath)).WillOnce(Return("1.0 & more"));
  EXPECT_CALL(facts, GetVersion()).WillOnce(Return("3.1-1200"));
  EXPECT_CALL(facts, GetUnique()).WillOnce(Return("unique"));
  const UpdateRequest request = MakeUpdateRequest(facts);
  EXPECT_EQ(request.address, "http://server/update");
  EXPECT_EQ(request.package_version, "1.0 & more");
  EXPECT_EQ(request.system_version, "3.1-1200");
  EXPECT_EQ(request.unique, "unique");
}

TEST(UpdateRequestTest, IsCompleteNeedsEveryPart) {
  const UpdateRequest whole{"http://server", "1.0", "3.1-1200", "unique"};
  EXPECT_TRUE(IsComplete(whole));
  for (std::string UpdateRequest::*part : {&UpdateRequest::address, &UpdateRequest::package_version,
                                           &UpdateRequest::system_version, &UpdateRequest::unique}) {
    UpdateRequest request = whole;
    (request.*part).clear();
    EXPECT_FALSE(IsComplete(request));
  }
}

TEST(UpdateRequestTest, QueryOfGivesTheParametersInOrderAndNotEncoded) {
  std::vector<std::string> query;
  for (const QueryParameter& parameter : QueryOf({"http://server", "1.0 & more", "3.1-1200", "a=b"})) {
    query.push_back(parameter.key + "=" + parameter.value);
  }
  EXPECT_THAT(query, testing::ElementsAre(std::string("identify=") + kPackageId, "unique=a=b", "version=1.0 & more",
                                          "kos_version=3.1-1200"));
}

/// A manager with given answers about AAC.
class KnownManager : public PackManager {
 public:
  KnownManager(bool needed, bool installed)
      : PackManager(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), needed_(needed), installed_(installed) {}

  bool IsAacNeeded() const override { return needed_; }
  bool HasAacCurrently() const override { return installed_; }

 private:
  bool needed_;
  bool installed_;
};

TEST(UpdateRequestTest, ChoosePackTakesAacWhereItIsAskedForOrInstalled) {
  const PackChoice requested = ChoosePack(KnownManager(true, false));
  EXPECT_TRUE(requested.with_aac);
  EXPECT_EQ(requested.reason, PackReason::kAacRequested);
  const PackChoice installed = ChoosePack(KnownManager(false, true));
  EXPECT_TRUE(installed.with_aac);
  EXPECT_EQ(installed.reason, PackReason::kAacInstalled);
  const PackChoice neither = ChoosePack(KnownManager(false, false));
  EXPECT_FALSE(neither.with_aac);
  EXPECT_EQ(neither.reason, PackReason::kHevcSuffices);
}

TEST(UpdateRequestTest, PackNameTellsThePacksApart) {
  EXPECT_EQ(PackName(true), kHevcAacPack);
  EXPECT_EQ(PackName(false), kHevcPack);
}

TEST(UpdateRequestTest, AsksForCodecCountsTheApplications) {
  const std::string requirements = R"({"aac": ["app"], "hevc": [], "text": "app"})";
  EXPECT_EQ(AsksForCodec(requirements, "aac"), true);
  EXPECT_EQ(AsksForCodec(requirements, "hevc"), false);
  EXPECT_EQ(AsksForCodec(requirements, "text"), false);
  EXPECT_EQ(AsksForCodec(requirements, "missing"), false);
}

TEST(UpdateRequestTest, AsksForCodecTellsNoJsonFromNoRequest) {
  EXPECT_EQ(AsksForCodec("", "aac"), std::nullopt);
  EXPECT_EQ(AsksForCodec("{\"aac\": [", "aac"), std::nullopt);
  EXPECT_THROW(static_cast<void>(AsksForCodec(R"(["aac"])", "aac")), Json::Exception);
}

}  // namespace
}  // namespace orbamira::updater
