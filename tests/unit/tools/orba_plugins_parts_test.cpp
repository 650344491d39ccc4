#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/trust.h"
#include "platform/settings_file.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_root.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/time_limit.h"

namespace orbamira::plugins {
namespace {

namespace fs = std::filesystem;

using test::LogCapture;
using test::LogLine;

constexpr Identity kSelf{4242, 4244};

std::string WhyDistrustedFile(uid_t user, gid_t group, mode_t mode) {
  struct stat status {};
  status.st_uid = user;
  status.st_gid = group;
  status.st_mode = S_IFREG | mode;
  return WhyDistrusted(status, kSelf, "it");
}

TEST(PluginTrustTest, FilesOfRootAndOfOurselvesAreTrusted) {
  EXPECT_EQ(WhyDistrustedFile(0, 4343, 0755), "");
  EXPECT_EQ(WhyDistrustedFile(4242, 4343, 0755), "");
}

TEST(PluginTrustTest, FilesOfOthersAreNot) { EXPECT_EQ(WhyDistrustedFile(4243, 0, 0755), "it belongs to user 4243"); }

TEST(PluginTrustTest, FilesThatOthersMayWriteAreNot) {
  EXPECT_EQ(WhyDistrustedFile(0, 0, 0757), "everyone may write it");
  EXPECT_EQ(WhyDistrustedFile(0, 4343, 0775), "group 4343 may write it");
}

TEST(PluginTrustTest, FilesThatOurGroupOrThatOfRootMayWriteAre) {
  EXPECT_EQ(WhyDistrustedFile(0, 0, 0775), "");
  EXPECT_EQ(WhyDistrustedFile(4242, 4244, 0775), "");
}

// With such a list the mode shows only that somebody may write: the group's bits are the most that the list grants.
TEST(PluginTrustTest, FilesThatAnAccessListLetsOthersWriteAreNot) {
  constexpr std::uint16_t kRead = 4;
  constexpr std::uint16_t kWrite = 6;
  struct Entry {
    std::uint16_t tag, rights;
    std::uint32_t user;
  };
  struct List {
    std::uint32_t version = 2;
    std::array<Entry, 5> entries = {{{0x01, kWrite, ~0U},
                                     {0x02, kWrite, 65534},  // that user
                                     {0x04, kRead, ~0U},
                                     {0x10, kWrite, ~0U},
                                     {0x20, kRead, ~0U}}};
  } list;
  const test::TempDir folder;
  const std::string path = folder.File("file");
  test::WriteFile(path, "key=value\n");
  EXPECT_EQ(WhyDistrusted(path), "");
  EXPECT_EQ(ReadSetting(path, "key"), "value");
  if (setxattr(path.c_str(), "system.posix_acl_access", &list, sizeof list, 0) != 0) {
    // A file system without such lists, or a namespace without that user.
    ASSERT_TRUE(errno == EOPNOTSUPP || errno == EINVAL) << errno;
    return;
  }
  EXPECT_EQ(WhyDistrusted(path), "an access control list lets others write it");
  EXPECT_EQ(ReadSetting(path, "key"), "");
}

TEST(PluginFailureTest, IsLoggedAtLocal1InOneLine) {
  LogCapture::Clear();
  testing::internal::CaptureStderr();
  Report("a\nb: gone");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(program_invocation_short_name) + ": a\\012b: gone\n");
  EXPECT_EQ(LogCapture::Lines(), std::vector({LogLine{LOG_LOCAL1 | LOG_ERR, "", "a\\012b: gone"}}));
}

class PluginTimeLimitTest : public testing::Test {
 protected:
  PluginTimeLimitTest() {
    LogCapture::Clear();
    fs::remove(path::kPkgSetting);
    fs::remove(path::kDefaultPkgSetting);
  }

  static void Set(const char* file, const std::string& value) {
    test::WriteFile(file, "other=1\nplugin_time_limit=" + value + "\n");
  }
};

TEST_F(PluginTimeLimitTest, IsAMinuteByDefault) {
  EXPECT_EQ(TimeLimit("plugin_time_limit"), 60);
  test::WriteFile(path::kPkgSetting, "other=1\n");
  EXPECT_EQ(TimeLimit("plugin_time_limit"), 60);
  EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(PluginTimeLimitTest, OfTheMachineWinsOverThatOfTheMaker) {
  Set(path::kDefaultPkgSetting, "7");
  EXPECT_EQ(TimeLimit("plugin_time_limit"), 7);
  Set(path::kPkgSetting, "");
  EXPECT_EQ(TimeLimit("plugin_time_limit"), 7);
  Set(path::kPkgSetting, "\" 0.5\"");
  EXPECT_EQ(TimeLimit("plugin_time_limit"), 0.5);
}

TEST_F(PluginTimeLimitTest, ThatIsNoneIsLoggedAndTheDefaultTaken) {
  Set(path::kDefaultPkgSetting, "7");
  for (const char* text : {"soon", "0", "-1", "nan", "inf", "86401", "\"", "5 s"}) {
    LogCapture::Clear();
    Set(path::kPkgSetting, text);
    EXPECT_EQ(TimeLimit("plugin_time_limit"), 60) << text;
    EXPECT_EQ(LogCapture::Lines(),
              std::vector({LogLine{
                  LOG_LOCAL1 | LOG_ERR, "",
                  std::string(path::kPkgSetting) + ": plugin_time_limit is not a number of seconds up to a day"}}))
        << text;
  }
}

}  // namespace
}  // namespace orbamira::plugins
