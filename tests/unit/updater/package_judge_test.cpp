#include "updater/package_judge.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"

namespace orbamira::updater {
namespace {

using test::ErrorLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;
using testing::StrictMock;

class PackageJudgeTest : public testing::Test {
 protected:
  PackageJudgeTest() { LogCapture::Clear(); }

  const std::vector<std::string> kVerify = {path::kOrbaArchivePath, "--verify", "/a/package"};
  std::shared_ptr<StrictMock<test::MockCore>> core_ = std::make_shared<StrictMock<test::MockCore>>();
  std::shared_ptr<StrictMock<test::MockPkg>> pkg_ = std::make_shared<StrictMock<test::MockPkg>>();
  PackageJudge judge_{core_, pkg_};
};

TEST_F(PackageJudgeTest, CheckFileChecksumAsksForTheDigestAndThenForTheSignature) {
  const InSequence in_sequence;
  EXPECT_CALL(*pkg_, CheckFileChecksum("/a/package", "c0ffee")).WillOnce(Return(true));
  EXPECT_CALL(*core_, RunCommand(kVerify)).WillOnce(Return(0));
  EXPECT_TRUE(judge_.CheckFileChecksum("/a/package", "c0ffee"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackageJudgeTest, CheckFileChecksumIsDoneWithAnotherDigest) {
  EXPECT_CALL(*pkg_, CheckFileChecksum).WillOnce(Return(false));
  EXPECT_FALSE(judge_.CheckFileChecksum("/a/package", "c0ffee"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PackageJudgeTest, AcceptsNothingUnlessTheProgramSucceeds) {
  for (const int status : {1, 64, -1, -9}) {
    LogCapture::Clear();
    EXPECT_CALL(*core_, RunCommand(kVerify)).WillOnce(Return(status));
    EXPECT_FALSE(judge_.Accepts("/a/package")) << status;
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine("package_judge.cpp", "Package /a/package is not accepted")));
  }
}

}  // namespace
}  // namespace orbamira::updater
