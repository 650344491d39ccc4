#include "tools/packctl/web/state.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/commands/status.h"
#include "tools/packctl/policy/judged_offer.h"
#include "tools/packctl/record/file_watch.h"
#include "tools/packctl/record/support_period.h"

namespace orbamira::packctl {
namespace {

using Problems = std::vector<std::string>;

void Append(Problems& problems, const Problems& more) { problems.insert(problems.end(), more.begin(), more.end()); }

void LookAtRecord(MachineState& state) try {
  const SeenStatus seen = LookAtStatus();
  state.record = seen.record;
  state.interrupted = seen.is_interrupted;
} catch (const std::exception& error) {
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
  constexpr std::size_t kShownEntries = 1000;
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

std::optional<PackIdentity> OfferedPack(const MachineState& state) {
  if (!state.record) {
    return std::nullopt;
  }
  if (!state.record->new_version.empty()) {
    return PackIdentity{state.record->new_pack_name, state.record->new_version};
  }
  // The library records no version once an update has begun.
  const bool has_begun = IsUnderWay(state.record->status) || IsFailed(state.record->status);
  return has_begun && state.checked && state.checked->is_news ? std::optional(PackIdentity{"", state.checked->version})
                                                              : std::nullopt;
}

std::optional<HistoryEntry> UnmendedFailure(const MachineState& state) {
  const bool is_recorded = state.record && IsFailed(state.record->status);
  for (auto entry = state.history.rbegin(); entry != state.history.rend(); ++entry) {
    const bool is_check = entry->command == "check";
    const bool is_cancelled_check = is_check && entry->exit == kExitCancelled;
    const bool is_newest = !state.checked || state.checked->IsOlderThan(entry->time);
    if (entry->exit != kExitDone && entry->exit != kExitNothingToDo &&
        (is_recorded ? !is_check : is_newest && !is_cancelled_check)) {
      return *entry;
    }
    if (!is_recorded) {
      break;
    }
  }
  return std::nullopt;
}

void StateReader::LookAtWork(MachineState& state) {
  LookAtRecord(state);
  state.at_work = HolderOf(path::kPackctlLock).has_value();
  if (state.record && IsUnderWay(state.record->status) && state.record->download_size_now > 0) {
    meter_.Add(state.record->download_size_now, RateMeter::Clock::now());
    state.rate = meter_.rate();
  } else {
    meter_ = {};
  }
}

MachineState StateReader::Look() {
  MachineState now;
  LookAtWork(now);
  if (IsOnlyProgress(state_.record, now.record)) {
    state_.record = now.record;
    state_.rate = now.rate;
    state_.at_work = now.at_work;
    state_.interrupted = now.interrupted;
    return state_;
  }
  now.installed = ReadInstalledPack();
  now.checked = ReadAnsweredCheck();
  now.support_end = ReadSupportEnd();
  now.wait = now.record ? WaitOf(*now.record) : std::nullopt;
  now.hold = ReadHold(std::time(nullptr));
  now.previous_version = updater::PreviousVersion();
  now.rejected = updater::RejectedVersions();
  LookAtCodecs(console_, now);
  LookAtHistory(now);
  console_.TakeHeld();
  now.history_changes = state_.history_changes + (now.history == state_.history ? 0 : 1);
  state_ = std::move(now);
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
