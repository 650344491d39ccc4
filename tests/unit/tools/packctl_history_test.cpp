#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/paths.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tools/packctl/record/history.h"
#include "tools/packctl/view/history_text.h"
#include "tools/packctl/view/local_time.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

using test::ReadFile;
using test::WriteFile;
using testing::StartsWith;

class HistoryTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(file_.parent_path());
    fs::create_directories(file_.parent_path());
  }

  static HistoryEntry Entry(const std::string& command) {
    return {.time = 1'700'000'000,
            .duration_ms = 1234,
            .command = command,
            .from = PackIdentity{kHevcPack, "1.0"},
            .to = PackIdentity{kHevcPack, "2.0"},
            .result = "done",
            .status = "up_to_date"};
  }

  /// The number of the error that the entry could not be added for; 0 when it was.
  static int ErrorOfAppending(const std::string& command) {
    try {
      AppendToHistory(Entry(command));
      return 0;
    } catch (const std::system_error& error) {
      return error.code().value();
    }
  }

  static std::vector<std::string> Commands(const History& history) {
    std::vector<std::string> commands;
    for (const HistoryEntry& entry : history.entries) {
      commands.push_back(entry.command);
    }
    return commands;
  }

  const fs::path file_ = path::kHistoryFile;
  const fs::path older_ = file_.string() + ".1";
};

TEST_F(HistoryTest, ReadHistoryWithoutAFileIsEmpty) {
  const History history = ReadHistory();
  EXPECT_TRUE(history.entries.empty());
  EXPECT_EQ(history.damaged, 0U);
  EXPECT_FALSE(fs::exists(file_));
}

TEST_F(HistoryTest, ReadHistoryGivesWhatWasAppendedInItsOrder) {
  HistoryEntry failed = Entry("check");
  failed.from.reset();
  failed.to.reset();
  failed.status.clear();
  failed.exit = 1;
  failed.failure = Failure{"busy", "another program is at work", "Try again."};
  failed.errors = {"one", "t\xC3\xA4wo \"quoted\"\n"};
  AppendToHistory(Entry("update"));
  AppendToHistory(failed);
  const History history = ReadHistory();
  ASSERT_THAT(Commands(history), testing::ElementsAre("update", "check"));
  EXPECT_EQ(history.damaged, 0U);
  EXPECT_EQ(history.entries[0].ToJson(), Entry("update").ToJson());
  EXPECT_EQ(history.entries[1].ToJson(), failed.ToJson());
  EXPECT_EQ(history.entries[1].failure, failed.failure);
}

TEST_F(HistoryTest, AnEntryOfAnOlderReleaseHasNoError) {
  Json::Value old = Entry("update").ToJson();
  old.removeMember("error");
  test::WriteFile(file_, JsonLine(old));
  const History history = ReadHistory();
  EXPECT_EQ(history.damaged, 0U);
  ASSERT_EQ(history.entries.size(), 1U);
  EXPECT_EQ(history.entries[0].failure, std::nullopt);
}

TEST_F(HistoryTest, AppendToHistoryWritesOneLineOfJson) {
  AppendToHistory(Entry("update"));
  EXPECT_EQ(ReadFile(file_),
            R"({"command":"update","duration_ms":1234,"error":null,"errors":[],"exit":0,)"
            R"("from":{"package":")" ORBAMIRA_HEVC_PACK R"(","version":"1.0"},"result":"done","status":"up_to_date",)"
            R"("time":1700000000,"to":{"package":")" ORBAMIRA_HEVC_PACK R"(","version":"2.0"}})"
            "\n");
  struct stat about {};
  ASSERT_EQ(stat(file_.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777U, 0640U);
}

TEST_F(HistoryTest, AppendToHistoryKeepsBytesThatAreNoTextOutOfTheFile) {
  HistoryEntry entry = Entry("update");
  entry.errors = {"\xFF\xFE\x01"};
  AppendToHistory(entry);
  for (const char c : ReadFile(file_)) {
    EXPECT_TRUE((c >= 0x20 && c < 0x7f) || c == '\n');
  }
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update"));
}

TEST_F(HistoryTest, AppendToHistoryCutsWhatHasNoBound) {
  HistoryEntry entry = Entry("update");
  entry.from->version = std::string(100'000, 'v');
  for (int i = 0; i < 1000; ++i) {
    entry.errors.push_back(std::to_string(i) + std::string(100'000, '\xFF'));
  }
  AppendToHistory(entry);
  EXPECT_LT(fs::file_size(file_), 100'000U);
  const History history = ReadHistory();
  ASSERT_EQ(history.entries.size(), 1U);
  EXPECT_THAT(history.entries[0].errors.back(), StartsWith("999"));
}

TEST_F(HistoryTest, ALineThatWasCutIsPassedOverAndTheNextEntryStandsOnItsOwn) {
  AppendToHistory(Entry("update"));
  const std::string whole = ReadFile(file_);
  WriteFile(file_, whole + whole.substr(0, whole.size() / 2));
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update"));
  EXPECT_EQ(ReadHistory().damaged, 1U);
  AppendToHistory(Entry("remove"));
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update", "remove"));
  EXPECT_EQ(ReadHistory().damaged, 1U);
}

TEST_F(HistoryTest, ALineWithoutItsEndIsReadAndEndedByTheNextEntry) {
  AppendToHistory(Entry("update"));
  const std::string whole = ReadFile(file_);
  WriteFile(file_, whole.substr(0, whole.size() - 1));
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update"));
  AppendToHistory(Entry("remove"));
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update", "remove"));
  EXPECT_EQ(ReadHistory().damaged, 0U);
}

TEST_F(HistoryTest, LinesThatAreNoEntryAreCountedAndPassedOver) {
  AppendToHistory(Entry("update"));
  const std::string whole = ReadFile(file_);
  const std::vector<std::string> damages = {
      "",
      "null",
      "[]",
      "{}",
      "text",
      std::string(5000, '['),
      std::string("\0\0\0", 3),
      R"({"command":7,"duration_ms":1,"errors":[],"exit":0,"from":null,"result":"","status":null,"time":1,"to":null})",
      R"({"command":"","duration_ms":1,"errors":[1],"exit":0,"from":null,"result":"","status":null,"time":1,"to":null})",
      R"({"command":"","duration_ms":1,"errors":[],"exit":0,"from":"1","result":"","status":null,"time":1,"to":null})",
      R"({"command":"","duration_ms":1,"errors":[],"exit":0,"from":null,"result":"","status":1,"time":1,"to":null})",
      R"({"command":"","duration_ms":1,"errors":[],"exit":0,"from":null,"result":"","status":null,"time":"","to":null})",
      std::string(R"({"command":"","duration_ms":1,"error":"busy","errors":[],"exit":0,"from":null,"result":"",)") +
          R"("status":null,"time":1,"to":null})",
  };
  std::string text = whole;
  for (const std::string& damage : damages) {
    text += damage + "\n";
  }
  WriteFile(file_, text + whole);
  const History history = ReadHistory();
  EXPECT_THAT(Commands(history), testing::ElementsAre("update", "update"));
  EXPECT_EQ(history.damaged, damages.size());
}

TEST_F(HistoryTest, TwoFilesOfAQuarterMebibyteAreAllThatIsKept) {
  constexpr std::size_t kBound = 256UL * 1024;
  HistoryEntry entry = Entry("update");
  entry.errors = {std::string(500, 'e')};
  for (int i = 0; i < 2000; ++i) {
    entry.time = i;
    AppendToHistory(entry);
  }
  EXPECT_LE(fs::file_size(file_), kBound);
  EXPECT_LE(fs::file_size(older_), kBound);
  EXPECT_GT(fs::file_size(older_), kBound - 1000);
  const History history = ReadHistory();
  EXPECT_EQ(history.damaged, 0U);
  ASSERT_GT(history.entries.size(), 300U);
  for (std::size_t i = 0; i < history.entries.size(); ++i) {
    EXPECT_EQ(history.entries[i].time, 2000 - static_cast<long>(history.entries.size() - i));
  }
}

TEST_F(HistoryTest, AFileThatBecomesTheOlderOneMeanwhileIsReadOnce) {
  AppendToHistory(Entry("update"));
  fs::create_hard_link(file_, older_);
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update"));
}

TEST_F(HistoryTest, AFileThatSomebodyElseMadeHugeIsReadFromItsEndAndSetAside) {
  AppendToHistory(Entry("update"));
  const std::string line = ReadFile(file_);
  WriteFile(file_, std::string(8UL << 20, 'x') + "\n" + line);
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update"));
  AppendToHistory(Entry("remove"));
  EXPECT_THAT(Commands(ReadHistory()), testing::ElementsAre("update", "remove"));
  EXPECT_LT(fs::file_size(file_), 1000U);
}

TEST_F(HistoryTest, WhatCannotBeAHistoryIsAnErrorAndStays) {
  fs::create_directories(file_);
  EXPECT_THROW(AppendToHistory(Entry("update")), std::system_error);
  EXPECT_THROW(ReadHistory(), std::system_error);
  fs::remove(file_);
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_THROW(AppendToHistory(Entry("update")), std::system_error);
  EXPECT_THROW(ReadHistory(), std::system_error);
  fs::remove(file_);
  WriteFile(file_.string() + ".target", "text");
  fs::create_symlink(file_.string() + ".target", file_);
  EXPECT_THROW(AppendToHistory(Entry("update")), std::system_error);
  EXPECT_EQ(ReadFile(file_.string() + ".target"), "text");
}

TEST_F(HistoryTest, AnOlderFileThatCannotBeReplacedIsAnErrorAndNothingGrows) {
  WriteFile(file_, std::string(256UL * 1024, 'x'));
  WriteFile(older_ / "file", "in the way");
  EXPECT_THROW(AppendToHistory(Entry("update")), std::system_error);
  EXPECT_EQ(fs::file_size(file_), 256UL * 1024);
}

TEST_F(HistoryTest, AnEntryThatTheDiskHasNoRoomForIsTakenBack) {
  AppendToHistory(Entry("update"));
  const std::string before = ReadFile(file_);
  {
    const test::FileSizeLimit full_disk(before.size() + 10);
    EXPECT_EQ(ErrorOfAppending("remove"), EFBIG);
  }
  EXPECT_EQ(ReadFile(file_), before);
}

TEST_F(HistoryTest, AnEntryIsSyncedBeforeTheCallReturns) {
  AppendToHistory(Entry("check"));  // from now on its folder need not be synced
  test::WithFailingCall(SYS_fsync, EIO, [] { EXPECT_EQ(ErrorOfAppending("update"), EIO); });
}

// How an entry tells its end, without time and command.
std::string EndOf(const HistoryEntry& entry) {
  return HistoryText(entry, false).substr(LocalTime(entry.time).size() + 12);
}

HistoryEntry EntryOf(const std::string& command, const std::string& result = "done", int exit = 0) {
  return {.time = 1'700'000'000,
          .duration_ms = 7200,
          .command = command,
          .from = PackIdentity{kHevcPack, "1.0"},
          .to = PackIdentity{kHevcAacPack, "2.0"},
          .result = result,
          .exit = exit};
}

TEST(HistoryTextTest, BeginsWithTimeAndCommand) {
  const std::string begin = LocalTime(1'700'000'000) + "  ";
  EXPECT_THAT(HistoryText(EntryOf("update"), false), StartsWith(begin + "update    Installed"));
  EXPECT_THAT(HistoryText(EntryOf("download"), false), StartsWith(begin + "download  Downloaded"));
}

TEST(HistoryTextTest, TellsWhatAWholeRunCameTo) {
  EXPECT_EQ(EndOf(EntryOf("update")), "Installed 2.0 with HEVC and AAC (was 1.0 with HEVC) in 7 s.\n");
  EXPECT_EQ(EndOf(EntryOf("install")), "Installed 2.0 with HEVC and AAC (was 1.0 with HEVC) in 7 s.\n");
  EXPECT_EQ(EndOf(EntryOf("download")), "Downloaded 2.0 in 7 s.\n");
  EXPECT_EQ(EndOf(EntryOf("check", "new_pack")), "Found 2.0.\n");
  EXPECT_EQ(EndOf(EntryOf("remove")), "Removed 1.0.\n");
  EXPECT_EQ(EndOf(EntryOf("recover")), "Cleaned up.\n");
  EXPECT_EQ(EndOf(EntryOf("check", "nothing_new")), "Nothing new.\n");
}

TEST(HistoryTextTest, ManagesWithoutPacksAndVersions) {
  HistoryEntry entry = EntryOf("update");
  entry.from.reset();
  EXPECT_EQ(EndOf(entry), "Installed 2.0 in 7 s.\n");
  entry.to->version.clear();
  EXPECT_EQ(EndOf(entry), "Installed a pack of unknown version in 7 s.\n");
  entry.to.reset();
  EXPECT_EQ(EndOf(entry), "Installed a pack in 7 s.\n");
  entry.command = "remove";
  EXPECT_EQ(EndOf(entry), "Removed a pack.\n");
}

TEST(HistoryTextTest, TellsWhyAFailedRunFailedAndWhatStays) {
  HistoryEntry entry = EntryOf("update", "failed", 1);
  entry.to = entry.from;
  EXPECT_EQ(EndOf(entry), "Failed: the reason is not known. 1.0 stays installed.\n");
  entry.errors = {"first", "last"};
  EXPECT_EQ(EndOf(entry), "Failed: last. 1.0 stays installed.\n");
  entry.failure = Failure{"no_space", "the disk is full", "Make room."};
  EXPECT_EQ(EndOf(entry), "Failed: the disk is full (no_space). 1.0 stays installed.\n");
  entry.to.reset();
  EXPECT_EQ(EndOf(entry), "Failed: the disk is full (no_space). No codec pack is installed.\n");
}

TEST(HistoryTextTest, VerboseAddsThePacksAndAllThatWasSaid) {
  HistoryEntry entry = EntryOf("update", "failed", 1);
  entry.from.reset();
  entry.to->package.clear();
  entry.errors = {"first", "last\033"};
  EXPECT_THAT(HistoryText(entry, true), testing::EndsWith("    from no pack to 2.0\n    first\n    last\\033\n"));
  entry.from = PackIdentity{kHevcPack, ""};
  EXPECT_THAT(HistoryText(entry, true),
              testing::HasSubstr(std::string("from ") + kHevcPack + " of unknown version to 2.0"));
}

}  // namespace
}  // namespace orbamira::packctl
