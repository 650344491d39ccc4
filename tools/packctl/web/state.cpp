#include "tools/packctl/web/state.h"

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>
#include <utility>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "tools/packctl/record/file_watch.h"
#include "tools/packctl/view/status_words.h"
#include "updater/pack_status_helper.h"

namespace orbamira::packctl {
namespace {

using Problems = std::vector<std::string>;

void Append(Problems& problems, const Problems& more) { problems.insert(problems.end(), more.begin(), more.end()); }

void LookAtRecord(MachineState& state) try { state.record = ReadStatus(); } catch (const std::exception& error) {
  state.record_problem = error.what();
  state.problems.emplace_back(error.what());
}

void LookAtCodecs(Console& console, MachineState& state) try {
  CodecReport codecs = ReadCodecs(console);
  Append(state.problems, codecs.problems);
  if (codecs.problems.empty()) {
    state.codecs = std::move(codecs);
  }
} catch (const std::exception& error) {
  state.problems.emplace_back(error.what());
}

void LookAtHistory(MachineState& state) try {
  constexpr std::size_t kShownEntries = 20;
  History history = ReadHistory();
  const std::size_t passed_over = history.entries.size() - std::min(history.entries.size(), kShownEntries);
  history.entries.erase(history.entries.begin(), history.entries.begin() + static_cast<std::ptrdiff_t>(passed_over));
  state.history = std::move(history.entries);
  Append(state.problems, history.Problems());
} catch (const std::exception& error) {
  state.problems.emplace_back(error.what());
}

// Whether the record tells of the same work, further on.
bool IsOnlyProgress(const std::optional<StatusRecord>& before, const std::optional<StatusRecord>& now) {
  return before && now && before->status == now->status && before->install_step == now->install_step && before != now;
}

}  // namespace

std::optional<int> HolderOf(const std::string& lock_path) {
  struct stat lock {};
  if (stat(lock_path.c_str(), &lock) != 0) {
    return std::nullopt;
  }
  // A line of the kernel's: "1: FLOCK  ADVISORY  WRITE 4711 fe:01:265 0 EOF"; that of a waiter has an arrow in it.
  std::array<char, 64> name{};
  static_cast<void>(std::snprintf(name.data(), name.size(), "%02x:%02x:%ju", major(lock.st_dev), minor(lock.st_dev),
                                  static_cast<std::uintmax_t>(lock.st_ino)));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string advisory;
    std::string access;
    std::string file;
    int holder = 0;
    words >> number >> kind >> advisory >> access >> holder >> file;
    if (kind == "FLOCK" && access == "WRITE" && file == name.data()) {
      return holder;
    }
  }
  return std::nullopt;
}

std::string WhyNoUpdate(const MachineState& state) {
  if (!state.record) {
    return state.record_problem;
  }
  const updater::PackStatus status = state.record->status;
  if (updater::PackStatusHelper(nullptr).CanDoDownloadInstall(status)) {
    return "";
  }
  return std::string("the update is not permitted while the recorded status is ") + StatusText(status) + " (" +
         StatusMeaning(status) + ")";
}

MachineState StateReader::Look() {
  MachineState now;
  LookAtRecord(now);
  if (IsOnlyProgress(state_.record, now.record)) {
    state_.record = now.record;
  } else {
    now.installed = ReadInstalledPack();
    LookAtCodecs(console_, now);
    LookAtHistory(now);
    console_.TakeHeld();
    state_ = std::move(now);
  }
  state_.at_work = HolderOf(path::kPackctlLock).has_value();
  return state_;
}

WebState::WebState(Console& console, std::function<void()> changed)
    : changed_(std::move(changed)), reader_(console), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_.valid()) {
    ThrowErrno("cannot watch the state");
  }
  watcher_ = std::thread([this] { Watch(); });
}

WebState::~WebState() {
  ended_ = true;
  LookAgain();
  watcher_.join();
}

std::optional<WebState::Seen> WebState::Latest() const {
  const std::lock_guard lock(mutex_);
  return latest_;
}

void WebState::LookAgain() const {
  // Fails only when it is asked for already, more often than a number can tell.
  static_cast<void>(eventfd_write(wake_.get(), 1));
}

void WebState::Watch() {
  // The end of somebody's work is not told of: the lock's file is closed before the lock is free.
  constexpr std::chrono::milliseconds kAtWork = std::chrono::seconds(1);
  constexpr std::chrono::milliseconds kIdle = std::chrono::minutes(1);
  FileWatch files({path::kPackStatusFile, path::kHistoryFile, path::kCodecRequirementsPath});
  std::optional<MachineState> shown;
  while (!ended_) {
    MachineState now = reader_.Look();
    if (now != shown) {
      shown = now;
      {
        const std::lock_guard lock(mutex_);
        latest_ = Seen{std::move(now), std::time(nullptr)};
      }
      changed_();
    }
    const pollfd wake{.fd = wake_.get(), .events = POLLIN, .revents = 0};
    if (files.Wait(wake, shown->at_work ? kAtWork : kIdle) == FileWatch::Wake::kOther) {
      eventfd_t count = 0;
      static_cast<void>(eventfd_read(wake_.get(), &count));
    }
  }
}

}  // namespace orbamira::packctl
