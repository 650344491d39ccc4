// Several processes at one appliance: readers of the status beside an update, and updates beside each other.
// ORBAMIRA_TEST_SECONDS says how long the readers go on.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "tests/support/appliance.h"
#include "tests/support/forked.h"
#include "tests/support/test_root.h"
#include "updater/pack_manager.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
namespace keys = webapi::param;

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Appliance;
using test::Forked;
using test::ProgramResult;
using test::RunningProgram;
using testing::AnyOf;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

constexpr int kReaders = 50;
// Of one process among so many, on a machine that may be busy with other tests as well.
constexpr seconds kPatience{30};

/// What this process and those that it forks see alike.
template <typename T>
class Shared {
 public:
  Shared() {
    void* const memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::system_error(errno, std::generic_category(), "mmap");
    }
    object_ = new (memory) T;
  }
  ~Shared() { munmap(object_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  T& operator*() const { return *object_; }

 private:
  T* object_;
};

/// Tells other processes, forked after it was made, that it is time.
class Signal {
 public:
  Signal() {
    if (pipe2(ends_.data(), O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe2");
    }
  }
  ~Signal() {
    Give();
    close(ends_[0]);
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void Give() {
    if (ends_[1] >= 0) {
      close(ends_[1]);
      ends_[1] = -1;
    }
  }

  /// In a forked process, before the first look: the signal is the last writer's going away.
  void Listen() { Give(); }

  [[nodiscard]] bool Given(milliseconds wait) const {
    pollfd end{ends_[0], POLLIN, 0};
    return poll(&end, 1, static_cast<int>(wait.count())) > 0;
  }

 private:
  std::array<int, 2> ends_{};
};

seconds Duration() {
  const char* const text = std::getenv("ORBAMIRA_TEST_SECONDS");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return seconds(text != nullptr ? std::stol(text) : 5);
}

/// What is wrong with the record that the store holds under its lock; empty when it is one that an update writes.
std::string FaultOfRecord(store::IKeyValueStore& store) {
  for (const char* key : {keys::kStatus, keys::kNewPackName, keys::kNewVersion, keys::kDownloadSizeNow,
                          keys::kDownloadSizeTotal, keys::kInstallStep}) {
    if (!store.Has(key)) {
      return std::string("no ") + key;
    }
  }
  const std::string status = store.Get(keys::kStatus);
  const std::string step = store.Get(keys::kInstallStep);
  const long now = std::stol(store.Get(keys::kDownloadSizeNow));
  const long total = std::stol(store.Get(keys::kDownloadSizeTotal));
  const std::set<std::string> steps = {"", "install", "post_install", "pre_uninstall", "uninstall", "post_uninstall"};
  const bool working = status == "downloading_installing";
  const bool belongs = status == "need_download" || working || status == "up_to_date";
  const bool fits = now >= 0 && now <= total && steps.contains(step) && (step.empty() || now == 0) &&
                    (working || (step.empty() && total == 0));
  if (belongs && fits && Appliance::StatusRecord().size() == 6) {
    return "";
  }
  return status + " " + std::to_string(now) + "/" + std::to_string(total) + " " + step;
}

/// What one reader did; the longest time that it had to wait for a record.
struct Reading {
  std::atomic<long> records{0};
  std::atomic<milliseconds::rep> longest{0};
};

/// Reads the record again and again, as a web interface does for its page, until it is told to stop.
int ReadUntil(Signal& stop, Reading& reading, bool keeps_store) {
  stop.Listen();
  std::unique_ptr<store::IKeyValueStore> store;
  do {
    const auto begin = Clock::now();
    const store::FileLock lock(path::kPackStatusLock);
    if (!keeps_store || store == nullptr) {
      store = store::FileKeyValueStore::Create(path::kPackStatusFile);
    }
    if (const std::string fault = FaultOfRecord(*store); !fault.empty()) {
      std::cerr << "A reader found " << fault << '\n';
      return 1;
    }
    const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count();
    reading.longest = std::max(reading.longest.load(), took);
    ++reading.records;
  } while (!stop.Given(milliseconds(1)));
  return 0;
}

class SideBySideTest : public testing::Test {
 protected:
  SideBySideTest() {
    appliance_.Publish("1.0", payload_);
    EXPECT_EQ(Appliance::Packctl({"update", "--reinstall"}).status, 0);
  }

  [[nodiscard]] bool IsWholePack() const {
    return Appliance::InstalledPayload() == payload_ && fs::exists(path::kHasHevcPath) &&
           KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath) == "1.0";
  }

  void ExpectWholePack() const {
    EXPECT_TRUE(IsWholePack());
    std::vector<std::string> beside;
    for (const auto& entry : fs::directory_iterator(kTargetFolder)) {
      if (entry.path() != path::kPreviousPackFolderPath) {
        beside.push_back(entry.path().filename());
      }
    }
    EXPECT_THAT(beside, testing::ElementsAre(kPackFolderName));
  }

  const std::string payload_ = test::PatternOf(1 << 20);
  Appliance appliance_;
};

TEST_F(SideBySideTest, FiftyReadersSeeWholeRecordsAndNobodyStarves) {
  const Shared<std::array<Reading, kReaders>> readings;
  Signal stop;
  std::vector<std::unique_ptr<Forked>> readers;
  for (std::size_t i = 0; i < kReaders; ++i) {
    readers.push_back(std::make_unique<Forked>([&, i] { return ReadUntil(stop, (*readings)[i], i % 2 == 0); }));
  }
  const auto end = Clock::now() + Duration();
  std::array<long, kReaders> before{};
  do {
    const auto begin = Clock::now();
    EXPECT_EQ(Appliance::Packctl({"update", "--reinstall"}).status, 0);
    EXPECT_LT(Clock::now() - begin, kPatience);
    for (std::size_t i = 0; i < kReaders; ++i) {
      const long records = (*readings)[i].records;
      EXPECT_GT(records, before[i]) << "reader " << i << " saw nothing during a whole update";
      before[i] = records;
    }
  } while (Clock::now() < end && !HasFailure());
  stop.Give();
  for (std::size_t i = 0; i < kReaders; ++i) {
    EXPECT_EQ(readers[i]->Wait(), 0) << "reader " << i;
    EXPECT_LT(milliseconds((*readings)[i].longest), kPatience) << "reader " << i;
  }
  ExpectWholePack();
}

/// Gives the status to nobody until everybody has asked for it: then the status permits all of them to go on.
class MeetingStatusHelper : public PackStatusHelper {
 public:
  MeetingStatusHelper(std::shared_ptr<store::IKeyValueStore> store, std::atomic<int>& missing)
      : PackStatusHelper(std::move(store)), missing_(missing) {}

  PackStatus GetPackStatus() override {
    const PackStatus status = PackStatusHelper::GetPackStatus();
    --missing_;
    while (missing_ > 0) {
      sched_yield();
    }
    return status;
  }

 private:
  std::atomic<int>& missing_;
};

int UpdateThroughTheLibrary(std::atomic<int>& missing) {
  const std::shared_ptr<IKOSHelper> facts = KOSHelper::Create();
  const PackManager manager(
      std::make_shared<wrapper::OrbaCoreWrapper>(), std::make_shared<wrapper::OrbaPkgWrapper>(), facts,
      std::make_shared<MeetingStatusHelper>(store::FileKeyValueStore::Create(path::kPackStatusFile), missing),
      PackHandler::Create(), PluginNotifier::Create());
  return manager.DownloadAndInstall() ? 0 : 1;
}

// The library takes no lock around a flow: two hosts that read the status at the same moment both go to work, and what
// one has put in place the other may take away. It is never a part of a pack, and nothing that an update cannot mend.
TEST_F(SideBySideTest, TwoUpdatesThroughTheLibraryLeaveAWholePackOrNone) {
  const auto end = Clock::now() + Duration();
  bool with_pack = true;
  do {
    if (!with_pack) {
      fs::remove_all(path::kPackFolderPath);
    }
    with_pack = !with_pack;
    const Shared<std::atomic<int>> missing;
    *missing = 2;
    Forked one([&] { return UpdateThroughTheLibrary(*missing); });
    Forked two([&] { return UpdateThroughTheLibrary(*missing); });
    EXPECT_THAT(one.Wait(), AnyOf(0, 1));
    EXPECT_THAT(two.Wait(), AnyOf(0, 1));
    EXPECT_TRUE(!fs::exists(path::kPackFolderPath) || IsWholePack());
    EXPECT_NO_THROW(EXPECT_NE(PackStatusHelper::Create()->GetPackStatus(), kStatusLost));
    EXPECT_EQ(Appliance::Packctl({"recover"}).status, 0);
    EXPECT_THAT(Appliance::Packctl({"check"}).status, AnyOf(0, 2));
    EXPECT_EQ(Appliance::Packctl({"update", "--reinstall"}).status, 0);
    ExpectWholePack();
    EXPECT_EQ(Appliance::StatusRecord()["status"], "up_to_date");
  } while (Clock::now() < end && !HasFailure());
}

TEST_F(SideBySideTest, OfManyUpdatesAtOnceEachWorksOrSaysWhoDoes) {
  std::array<std::unique_ptr<RunningProgram>, 6> updates;
  for (auto& update : updates) {
    update = std::make_unique<RunningProgram>(Appliance::PackctlCommand({"update", "--reinstall"}));
  }
  int done = 0;
  for (const auto& update : updates) {
    const ProgramResult result = update->Wait();
    done += result.status == 0 ? 1 : 0;
    EXPECT_THAT(result.status, AnyOf(0, 75)) << result.errors;
    EXPECT_EQ(result.errors.empty(), result.status == 0);
    EXPECT_THAT(result.errors, AnyOf("", StartsWith("packctl: Another program is at work")));
  }
  EXPECT_GT(done, 0);
  ExpectWholePack();
  EXPECT_EQ(Appliance::StatusRecord()["status"], "up_to_date");
}

}  // namespace
}  // namespace orbamira::updater
