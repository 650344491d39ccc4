// "packctl status --watch" beside a program that changes the record.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <pty.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <sstream>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "tests/support/appliance.h"
#include "tests/support/await.h"
#include "tests/support/test_root.h"
#include "updater/pack_status_helper.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::Await;
using test::ProgramResult;
using test::RunningProgram;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class PackctlWatchTest : public testing::Test {
 protected:
  static std::vector<std::string> Watch(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"status", "--watch"});
    return Appliance::PackctlCommand(more);
  }

  static std::unique_ptr<updater::IPackStatusHelper> Status() { return updater::PackStatusHelper::Create(); }

  static void AwaitOutput(const RunningProgram& program, const std::string& text) {
    Await([&] { return program.Output().find(text) != std::string::npos; });
  }

  Appliance appliance_;
};

TEST_F(PackctlWatchTest, ShowsTheStatusAtOnceAndEachChangeOnALine) {
  RunningProgram watch(Watch());
  AwaitOutput(watch, "lost (nothing is recorded yet)\n");
  const auto status = Status();
  status->SetAsNeedDownload("2.0");
  AwaitOutput(watch, "need_download (a new pack waits to be downloaded, version 2.0)\n");
  status->SetAsDownloadInstalling(50, 100);
  AwaitOutput(watch, "(50 %)");
  status->SetAsDownloadInstalling(updater::kStepInstall);
  AwaitOutput(watch, "Unpacking");
  status->SetAsUpToDate();
  AwaitOutput(watch, "up_to_date (");
  watch.Signal(SIGTERM);
  const ProgramResult result = watch.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "lost (nothing is recorded yet)\n"
            "need_download (a new pack waits to be downloaded, version 2.0)\n"
            "downloading_installing (a pack is being downloaded and installed)\n"
            "Downloaded 50 B of 100 B (50 %)\n"
            "Unpacking the new pack and putting it in place\n"
            "up_to_date (the last update succeeded)\n");
}

TEST_F(PackctlWatchTest, InJsonEachChangeIsTheAnswerOfStatusOnALine) {
  RunningProgram watch(Watch({"--json"}));
  AwaitOutput(watch, "\n");
  std::string expected = Appliance::Packctl({"status", "--json"}).output;
  EXPECT_EQ(watch.Output(), expected);
  Status()->SetAsDownloading(1'000'000'000, 2'000'000'000);
  AwaitOutput(watch, "1000000000");
  expected += Appliance::Packctl({"status", "--json"}).output;
  Status()->SetAsNeedInstall("2.0", kHevcPack);
  AwaitOutput(watch, "need_install");
  expected += Appliance::Packctl({"status", "--json"}).output;
  watch.Signal(SIGINT);
  const ProgramResult result = watch.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, expected);
}

TEST_F(PackctlWatchTest, WhatIsRecordedAgainIsNotShownAgain) {
  const auto status = Status();
  status->SetAsNeedDownload("2.0");
  RunningProgram watch(Watch({"--json"}));
  AwaitOutput(watch, "\n");
  const std::string once = watch.Output();
  status->SetAsNeedDownload("2.0");
  status->SetAsUpToDate();
  AwaitOutput(watch, "up_to_date");
  EXPECT_THAT(watch.Output(), AllOf(StartsWith(once), EndsWith(Appliance::Packctl({"status", "--json"}).output)));
  const std::string output = watch.Output();
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2);
}

TEST_F(PackctlWatchTest, FollowsARealUpdateToItsEnd) {
  appliance_.Publish("1.0", test::PatternOf(4 << 20));
  RunningProgram watch(Watch({"--json"}));
  AwaitOutput(watch, "lost");
  ASSERT_EQ(Appliance::Packctl({"update"}).status, 0);
  AwaitOutput(watch, "up_to_date");
  std::istringstream lines(watch.Output());
  std::vector<std::string> statuses;
  for (std::string line; std::getline(lines, line);) {
    Json::Value record;
    std::istringstream(line) >> record;
    if (statuses.empty() || statuses.back() != record["status"].asString()) {
      statuses.push_back(record["status"].asString());
    }
  }
  EXPECT_THAT(statuses, testing::ElementsAre("lost", "downloading_installing", "up_to_date"));
}

TEST_F(PackctlWatchTest, SleepsInThePollUntilSomethingHappens) {
  RunningProgram watch(Watch());
  AwaitOutput(watch, "lost");
  // The kernel's own word for what the process waits in: the call's number and its arguments.
  const std::string file = "/proc/" + std::to_string(watch.pid()) + "/syscall";
  const auto waits_a_minute = [&] {
    std::istringstream call(test::ReadFile(file));
    std::string number;
    std::string descriptors;
    std::string count;
    std::string timeout;
    call >> number >> descriptors >> count >> timeout;
#ifdef SYS_poll
    return number == std::to_string(SYS_poll) && timeout == "0xea60";
#else
    return number == std::to_string(SYS_ppoll);
#endif
  };
  Await(waits_a_minute);
  Status()->SetAsNeedDownload("2.0");
  AwaitOutput(watch, "need_download");
  Await(waits_a_minute);
}

TEST_F(PackctlWatchTest, FindsAStoreWhoseFolderIsMadeLater) {
  fs::remove_all(fs::path(path::kPackStatusFile).parent_path());
  RunningProgram watch(Watch());
  AwaitOutput(watch, "lost");
  fs::create_directories(fs::path(path::kPackStatusFile).parent_path());
  Status()->SetAsNeedDownload("2.0");
  AwaitOutput(watch, "need_download");
  Status()->SetAsUpToDate();
  AwaitOutput(watch, "up_to_date");
}

TEST_F(PackctlWatchTest, FollowsTheStoreIntoAFolderThatReplacesItsOwn) {
  const fs::path folder = fs::path(path::kPackStatusFile).parent_path();
  RunningProgram watch(Watch());
  AwaitOutput(watch, "lost");
  fs::rename(folder, folder.string() + ".old");
  fs::create_directories(folder);
  Status()->SetAsNeedDownload("2.0");
  AwaitOutput(watch, "need_download");
}

TEST_F(PackctlWatchTest, TellsOfARecordThatCannotBeReadAndGoesOn) {
  RunningProgram watch(Watch({"--json"}));
  AwaitOutput(watch, "lost");
  const auto store = store::FileKeyValueStore::Create(path::kPackStatusFile);
  store->Set(webapi::param::kStatus, "dancing");
  AwaitOutput(watch, R"({"command":"status","error":{"code":"record_unreadable",)");
  Status()->SetAsUpToDate();
  AwaitOutput(watch, "up_to_date");
  watch.Signal(SIGTERM);
  const ProgramResult result = watch.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "packctl: the recorded status cannot be read; \"packctl recover\" mends it\n");
}

TEST_F(PackctlWatchTest, EndsOnASignalEvenWhileAnotherHoldsTheLock) {
  RunningProgram watch(Watch());
  AwaitOutput(watch, "lost");
  const store::FileLock lock(path::kPackStatusLock);
  test::WriteFile(path::kPackStatusFile, "{}");
  // It now waits for the lock.
  Await([&] {
    return test::ReadFile("/proc/" + std::to_string(watch.pid()) + "/syscall").starts_with(std::to_string(SYS_flock));
  });
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Wait().status, 0);
}

TEST_F(PackctlWatchTest, EndsWhenNobodyReadsItAnyMore) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  RunningProgram watch(Watch(), ends[1]);
  close(ends[1]);
  char first = 0;
  ASSERT_EQ(read(ends[0], &first, 1), 1);
  close(ends[0]);
  const ProgramResult result = watch.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
}

TEST_F(PackctlWatchTest, AReaderThatWasNeverThereIsNoFailure) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  close(ends[0]);
  RunningProgram watch(Watch({"--json"}), ends[1]);
  close(ends[1]);
  const ProgramResult result = watch.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
}

TEST_F(PackctlWatchTest, AnOutputThatTakesNothingIsAFailure) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  RunningProgram watch(Watch(), full);
  close(full);
  const ProgramResult result = watch.Wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "packctl: cannot write to the standard output\n");
}

TEST_F(PackctlWatchTest, ATerminalGetsAProgressBarThatIsRedrawn) {
  int master = -1;
  int slave = -1;
  winsize size{.ws_row = 24, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(slave, F_SETFD, FD_CLOEXEC);
  RunningProgram watch(Watch(), slave);
  close(slave);
  std::string screen;
  const auto read_until = [&](const std::string& text) {
    while (screen.find(text) == std::string::npos) {
      std::array<char, 4096> buffer{};
      const ssize_t length = read(master, buffer.data(), buffer.size());
      ASSERT_GT(length, 0) << screen;
      screen.append(buffer.data(), static_cast<std::size_t>(length));
    }
  };
  read_until("lost (nothing is recorded yet)\r\n");
  const auto status = Status();
  status->SetAsDownloading(1 << 20, 4 << 20);
  read_until(" 25%");
  status->SetAsDownloading(2 << 20, 4 << 20);
  read_until(" 50%");
  status->SetAsUpToDate();
  read_until("up_to_date (the last update succeeded)\r\n");
  EXPECT_THAT(screen, AllOf(HasSubstr("downloading (a pack is being downloaded)\r\n\r"), HasSubstr("["),
                            HasSubstr("\r\nup_to_date")));
  watch.Signal(SIGINT);
  EXPECT_EQ(watch.Wait().status, 0);
  close(master);
}

}  // namespace
}  // namespace orbamira
