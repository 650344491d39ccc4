// A day in the life of an appliance whose kernel, or whose file systems, lack what newer ones have.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "platform/constants.h"
#include "tests/support/appliance.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::ProcessResult;

struct OlderSystem {
  const char* name;
  std::function<void()> become;  // for before_exec
};

std::vector<OlderSystem> OlderSystems() {
  std::vector<OlderSystem> systems = {{"LinuxThreeTen", test::BecomeLinux310}};
  const auto lack = [&](const char* name, int call, int error) {
    systems.push_back({name, [=] { test::FailSystemCall(call, error); }});
  };
  lack("NoRenameToAFreeName", SYS_renameat2, EINVAL);
  lack("NoFileInMemory", SYS_memfd_create, EINVAL);
  lack("NoCopyInTheKernel", SYS_copy_file_range, EINVAL);
  lack("NoRangeOfDescriptors", SYS_close_range, EINVAL);
  lack("NoRandomBytesByCall", SYS_getrandom, ENOSYS);
  return systems;
}

class OlderSystemsTest : public testing::TestWithParam<OlderSystem> {
 protected:
  static ProcessResult Run(const std::vector<std::string>& arguments) {
    test::ProcessOptions options;
    options.before_exec = GetParam().become;
    return RunProgram(Appliance::PackctlCommand(arguments), options);
  }

  static void ExpectDone(const std::vector<std::string>& arguments) {
    const ProcessResult result = Run(arguments);
    EXPECT_TRUE(result.Exited(0)) << arguments[0] << ": " << result;
  }

  Appliance appliance_;
};

TEST_P(OlderSystemsTest, CheckUpdateRecoverAndRemoveDoTheirWork) {
  appliance_.Publish("1.0", "one");
  ExpectDone({"check"});
  ExpectDone({"update"});
  EXPECT_EQ(Appliance::InstalledPayload(), "one");

  appliance_.Publish("2.0", "two");
  ExpectDone({"check"});
  ExpectDone({"download"});
  ExpectDone({"install"});
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
  EXPECT_EQ(Appliance::StatusRecord()["status"], "up_to_date");

  test::WriteFile(fs::path(path::kTempPackFolderPath) / "left", "behind");
  fs::permissions(path::kTempPackFolderPath, fs::perms::none);
  ExpectDone({"recover"});
  EXPECT_FALSE(fs::exists(path::kTempPackFolderPath));
  ExpectDone({"status"});
  EXPECT_TRUE(Run({"account", "status"}).Exited(2));  // nobody is signed in
  ExpectDone({"remove"});
  EXPECT_EQ(Appliance::InstalledPayload(), "");
}

TEST_P(OlderSystemsTest, ABrokenRecordIsSetAside) {
  test::WriteFile(path::kPackStatusFile, "{");
  appliance_.Publish("1.0", "one");
  ExpectDone({"update"});
  EXPECT_EQ(test::ReadFile(std::string(path::kPackStatusFile) + ".broken"), "{");
}

INSTANTIATE_TEST_SUITE_P(Systems, OlderSystemsTest, testing::ValuesIn(OlderSystems()),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace orbamira
