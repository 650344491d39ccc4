#include "platform/accepted_packages.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/constants.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

class AcceptedPackagesTest : public testing::Test {
 protected:
  ~AcceptedPackagesTest() override { fs::remove(path::kAcceptedPackagesFile); }
};

TEST_F(AcceptedPackagesTest, ReadGivesWhatWasSaved) {
  EXPECT_EQ(ReadAcceptedPackages(), AcceptedPackages());
  const AcceptedPackages accepted{.minimum = "1.2.0", .newest_signature = 1'700'000'000};
  fs::create_directories(fs::path(path::kAcceptedPackagesFile).parent_path());
  SaveAcceptedPackages(accepted);
  EXPECT_EQ(ReadAcceptedPackages(), accepted);
  EXPECT_EQ(test::ReadFile(path::kAcceptedPackagesFile), "minimum=\"1.2.0\"\nnewest_signature=\"1700000000\"\n");
  EXPECT_EQ(fs::status(path::kAcceptedPackagesFile).permissions(), fs::perms(0644));
}

TEST_F(AcceptedPackagesTest, ATimeThatIsNoneIsNotKnown) {
  for (const std::string time : {"", "soon", "1700000000x", "x1700000000", "0", "-1", "99999999999999999999"}) {
    test::WriteFile(path::kAcceptedPackagesFile, "newest_signature=" + time + "\n");
    EXPECT_EQ(ReadAcceptedPackages().newest_signature, 0) << time;
  }
  test::WriteFile(path::kAcceptedPackagesFile, "newest_signature=1\n");
  EXPECT_EQ(ReadAcceptedPackages().newest_signature, 1);
}

}  // namespace
}  // namespace orbamira
