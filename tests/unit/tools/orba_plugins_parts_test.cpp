#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"
#include "platform/settings_file.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_root.h"
#include "tools/orba-plugins/app_ids.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/output_lines.h"
#include "tools/orba-plugins/time_limit.h"
#include "updater/json_text.h"

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
                                     {0x02, kWrite, geteuid()},  // that user
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
    ASSERT_EQ(errno, EOPNOTSUPP);  // a file system without such lists
    return;
  }
  EXPECT_EQ(WhyDistrusted(path), "an access control list lets others write it");
  EXPECT_EQ(ReadSetting(path, "key"), "");
}

class PluginPathTest : public testing::Test {
 protected:
  /// Makes an empty file or, of a name that ends in a slash, a folder with this mode.
  std::string Make(const std::string& name, mode_t mode) const {
    const std::string path = folder_.File(name);
    if (name.ends_with('/')) {
      fs::create_directory(path);
    } else {
      test::WriteFile(path, "");
    }
    fs::permissions(path, fs::perms(mode));
    return path;
  }

  std::string Link(const std::string& name, const std::string& target) const {
    fs::create_symlink(target, folder_.File(name));
    return folder_.File(name);
  }

  test::TempDir folder_;
};

TEST_F(PluginPathTest, EveryStepOfThePathCounts) {
  Make("open/", 0777);
  Make("open/inner/", 0755);
  const std::string file = Make("open/inner/file", 0755);
  EXPECT_EQ(WhyDistrusted(file), "everyone may write " + folder_.File("open"));
  Make("open/", 01777);
  EXPECT_EQ(WhyDistrusted(file), "");
  EXPECT_EQ(WhyDistrusted(folder_.File("open")), "everyone may write it");
  Make("open/inner/", 0777);
  EXPECT_EQ(WhyDistrusted(folder_.File("open//inner///file")), "everyone may write " + folder_.File("open/inner"));
}

TEST_F(PluginPathTest, WhatOurOwnGroupMayWriteIsTrusted) { EXPECT_EQ(WhyDistrusted(Make("file", 0664)), ""); }

TEST_F(PluginPathTest, WhatALinkLeadsToCounts) {
  const std::string file = Make("file", 0666);
  EXPECT_EQ(WhyDistrusted(Link("relative", "file")), "everyone may write it");
  EXPECT_EQ(WhyDistrusted(Link("absolute", file)), "everyone may write it");
  Make("open/", 0777);
  Make("open/file", 0755);
  Link("folder", "open");
  EXPECT_EQ(WhyDistrusted(folder_.File("folder/file")), "everyone may write " + folder_.File("open"));
}

TEST_F(PluginPathTest, AsManyLinksAreFollowedAsTheKernelFollows) {
  std::string last = Make("0", 0755);
  for (int i = 1; i <= 40; ++i) {
    last = Link(std::to_string(i), std::to_string(i - 1));
  }
  EXPECT_EQ(WhyDistrusted(last), "");
  for (const std::string& path : {Link("41", "40"), Link("circle", "circle")}) {
    try {
      ADD_FAILURE() << path << WhyDistrusted(path);
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), ELOOP);
    }
  }
}

// As the appliance's own root folder, which no setting names.
TEST_F(PluginPathTest, TheWayToTheRootOfATestDoesNotCount) {
  Make("open/", 0777);
  Make("open/root/", 0755);
  const std::string file = Make("open/root/file", 0755);
  const std::string before = getenv("ORBAMIRA_ROOT");
  setenv("ORBAMIRA_ROOT", folder_.File("open/root").c_str(), 1);
  EXPECT_EQ(WhyDistrusted(file), "");
  setenv("ORBAMIRA_ROOT", "", 1);
  EXPECT_EQ(WhyDistrusted(file), "everyone may write " + folder_.File("open"));
  unsetenv("ORBAMIRA_ROOT");
  EXPECT_EQ(WhyDistrusted(file), "everyone may write " + folder_.File("open"));
  setenv("ORBAMIRA_ROOT", before.c_str(), 1);
}

TEST_F(PluginPathTest, ARelativePathBeginsInTheCurrentFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  Make("open/", 0777);
  Make("open/file", 0755);
  EXPECT_EQ(WhyDistrusted("open/file"), "everyone may write ./open");
  fs::current_path(before);
}

TEST(PluginFailureTest, IsLoggedAtLocal1InOneLine) {
  LogCapture::Clear();
  testing::internal::CaptureStderr();
  Report("a\nb: gone");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(program_invocation_short_name) + ": a\\012b: gone\n");
  EXPECT_EQ(LogCapture::Lines(), std::vector({LogLine{LOG_LOCAL1 | LOG_ERR, "", "a\\012b: gone"}}));
}

/// Has its standard error elsewhere for its life.
class ErrorsTo {
 public:
  explicit ErrorsTo(int fd) : before_(dup(STDERR_FILENO)) { dup2(fd, STDERR_FILENO); }
  ~ErrorsTo() { dup2(before_.get(), STDERR_FILENO); }
  ErrorsTo(const ErrorsTo&) = delete;
  ErrorsTo& operator=(const ErrorsTo&) = delete;

 private:
  UniqueFd before_;
};

// Into a pipe, which holds no more if a text is printed again and again.
TEST(PrintErrorTest, PrintsASingleCharacterOnce) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC), 0);
  const UniqueFd read_end(ends[0]);
  const UniqueFd write_end(ends[1]);
  {
    const ErrorsTo pipe(write_end.get());
    EXPECT_TRUE(PrintError("x"));
  }
  EXPECT_EQ(ReadUpTo(read_end.get(), 1), "x");
  EXPECT_EQ(ReadUpTo(read_end.get(), 1), std::nullopt);
}

// A pipe has room for a page while another is still to be read.
TEST(PrintErrorTest, WritesNoMoreToAPipeThanItTakesAtOnce) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const UniqueFd read_end(ends[0]);
  const UniqueFd write_end(ends[1]);
  const int page = static_cast<int>(sysconf(_SC_PAGESIZE));
  ASSERT_EQ(fcntl(write_end.get(), F_SETPIPE_SZ, 2 * page), 2 * page);
  const std::string text(static_cast<std::size_t>(page), 'x');
  ASSERT_EQ(write(write_end.get(), text.data(), text.size()), page);
  const ErrorsTo pipe(write_end.get());
  alarm(60);  // rather than wait for ever
  EXPECT_FALSE(PrintError(text + "x"));
  alarm(0);
}

TEST(PrintErrorTest, TellsWhetherTheTextWasTaken) {
  testing::internal::CaptureStderr();
  EXPECT_TRUE(PrintError(std::string(10'000, 'x')));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(10'000, 'x'));
  const ErrorsTo full(OpenFile("/dev/full", O_WRONLY).get());
  EXPECT_FALSE(PrintError("x"));
}

/// What is passed on of lines that a plugin prints in these pieces.
std::string PassedOn(const std::vector<std::string>& pieces) {
  testing::internal::CaptureStderr();
  OutputLines lines("a");
  for (const std::string& piece : pieces) {
    lines.Take(OutputLines::kOutput, piece);
  }
  lines.Finish();
  return testing::internal::GetCapturedStderr();
}

TEST(OutputLinesTest, ALineIsCutAfterItsFirst1024Characters) {
  const std::string longest(1024, 'x');
  EXPECT_EQ(PassedOn({longest + "\n"}), "a: " + longest + "\n");
  EXPECT_EQ(PassedOn({longest + "x\n"}), "a: " + longest + " [cut]\n");
  EXPECT_EQ(PassedOn({longest, "\nshort\n"}), "a: " + longest + "\na: short\n");
  EXPECT_EQ(PassedOn({longest.substr(24), std::string(24, 'x'), "x", "\n"}), "a: " + longest + " [cut]\n");
}

TEST(OutputLinesTest, ThereAreAThousandLinesAndThenOneThatSaysSo) {
  std::string lines;
  std::string passed_on;
  for (int i = 0; i < 1000; ++i) {
    lines += "y\n";
    passed_on += "a: y\n";
  }
  EXPECT_EQ(PassedOn({lines + "\n\n"}), passed_on);
  EXPECT_EQ(PassedOn({lines + "y\n", "y\n"}),
            passed_on + "a: printed more than 64 KiB or 1000 lines, the rest is dropped\n");
}

TEST(OutputLinesTest, TheLinesHaveNoMoreThan64KiB) {
  std::string lines;
  std::string passed_on;
  for (int i = 0; i < 64; ++i) {
    lines += std::string(1023, 'x') + "\n";
    passed_on += "a: " + std::string(1023, 'x') + "\n";
  }
  EXPECT_EQ(PassedOn({lines}), passed_on);
  const std::string dropped = "a: printed more than 64 KiB or 1000 lines, the rest is dropped\n";
  EXPECT_EQ(PassedOn({lines + "y"}), passed_on + dropped);
  lines.insert(lines.size() - 1, "x");
  EXPECT_EQ(PassedOn({lines}), passed_on.substr(0, passed_on.size() / 64 * 63) + dropped);
}

TEST(OutputLinesTest, TheLinesOfTwoStreamsDoNotMix) {
  testing::internal::CaptureStderr();
  OutputLines lines("a");
  lines.Take(OutputLines::kOutput, "out");
  lines.Take(OutputLines::kError, "err\nmore");
  lines.Take(OutputLines::kOutput, "put\r\n");
  lines.Finish();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "a: err\na: output\na: more\n");
}

TEST(AppIdsTest, AreTheLinesWithoutBlanksAroundThem) {
  EXPECT_EQ(IdsIn("\n a b \t\r\n\v\f\n\xc3\xa4\nc"), (std::vector<std::string>{"a b", "\xc3\xa4", "c"}));
  EXPECT_TRUE(IdsIn("").empty());
  EXPECT_THROW(IdsIn("a\n\xc3"), std::invalid_argument);
}

TEST(AppIdAnswerTest, EscapesWhatJsonDemands) {
  AppIdAnswer answer;
  EXPECT_EQ(answer.Text(), "[]\n");
  EXPECT_TRUE(answer.Add({"a b", "\x1f\"\\/"}));
  EXPECT_TRUE(answer.Add({}));
  EXPECT_TRUE(answer.Add({"c"}));
  EXPECT_EQ(answer.Text(), "[\"a b\", \"\\u001f\\\"\\\\/\", \"c\"]\n");
}

TEST(AppIdAnswerTest, IsAtMostAsLongAsWhatTheLibraryReads) {
  AppIdAnswer answer;
  const std::string longest(updater::kJsonTextLimit - std::string("[\"\"]\n").size(), 'x');
  EXPECT_FALSE(answer.Add({longest + "x"}));
  EXPECT_EQ(answer.Text(), "[]\n");
  EXPECT_TRUE(answer.Add({longest}));
  EXPECT_EQ(answer.Text().size(), updater::kJsonTextLimit);
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
  Set(path::kPkgSetting, "86400");
  EXPECT_EQ(TimeLimit("plugin_time_limit"), 86400);
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
