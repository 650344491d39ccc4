#pragma once

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/posix/unique_fd.h"
#include "tools/packctl/cli/console.h"
#include "tools/packctl/host/codec_report.h"
#include "tools/packctl/policy/decision.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/history.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/lock_holder.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/progress_text.h"
#include "updater/health.h"

/// What the page shows of the machine.
namespace orbamira::packctl {

/// What one look at the machine found.
struct MachineState {
  std::optional<StatusRecord> record = {};  ///< empty when it cannot be read
  std::string record_problem = {};          ///< why not
  std::optional<InstalledPack> installed = {};
  std::optional<CodecReport> codecs = {};                 ///< empty when they cannot be told
  std::vector<HistoryEntry> history = {};                 ///< the newest entries, oldest first: a year of them, bounded
  unsigned long history_changes = 0;                      ///< how often another history was found
  std::optional<AnsweredCheck> checked = {};              ///< when the update server last answered a check
  std::optional<Wait> wait = {};                          ///< why the pack on offer is not installed by itself
  std::optional<Hold> hold = {};                          ///< the owner's, that is in force
  std::vector<std::string> problems = {};                 ///< what could not be read, a sentence each
  std::optional<double> rate = {};                        ///< of the download under way, in bytes per second
  bool at_work = false;                                   ///< a program holds the update lock
  std::optional<std::chrono::sys_days> support_end = {};  ///< the last day of the maker's support
  std::optional<std::string> previous_version = {};       ///< of the pack to go back to
  std::vector<updater::RejectedVersion> rejected = {};    ///< versions that are not installed again
  bool interrupted = false;                               ///< the record tells of work, and nobody is at work

  friend bool operator==(const MachineState&, const MachineState&) = default;
};

/// The pack that waits, is being installed or could not be: what is recorded, or else what the last check found. Empty
/// when there is none, or nobody told of it.
std::optional<PackIdentity> OfferedPack(const MachineState& state);

/// The failure that nothing has mended since: of the last update, download or install while the record says that it
/// failed, and of the last check while no later one was answered.
std::optional<HistoryEntry> UnmendedFailure(const MachineState& state);

/// Looks at what there is to show.
class StateReader {
 public:
  /// What the console holds is the reader's from now on.
  explicit StateReader(Console& console) : console_(console) {}

  /// Looks at all of it; while nothing but a download's progress has changed, at the record alone. May wait for the
  /// locks of what it reads.
  MachineState Look();

 private:
  void LookAtWork(MachineState& state);

  Console& console_;
  MachineState state_;  // of the last look
  RateMeter meter_;
};

/// Looks whenever something has changed, on a thread of its own: it may have to wait for a lock that somebody keeps,
/// and clients should not.
class WebState {
 public:
  /// What a look found, and when.
  struct Seen {
    MachineState state;
    std::time_t time;  ///< seconds since the epoch
  };

  /// `changed` is called from that thread after each look that found something else than the one before. What the
  /// console holds is its own from now on.
  WebState(Console& console, std::function<void()> changed);
  ~WebState();
  WebState(const WebState&) = delete;
  WebState& operator=(const WebState&) = delete;

  /// The last look that found something new; empty before the first has ended.
  [[nodiscard]] std::optional<Seen> Latest() const;

  /// Asks for a look now.
  void LookAgain() const;

 private:
  void Watch();

  std::function<void()> changed_;
  StateReader reader_;
  UniqueFd wake_;
  mutable std::mutex mutex_;
  std::optional<Seen> latest_;
  std::atomic<bool> ended_ = false;
  std::thread watcher_;
};

}  // namespace orbamira::packctl
