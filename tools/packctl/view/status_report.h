#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/policy/decision.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/history.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "updater/health.h"

/// How the appliance is, in the words of "packctl status".
namespace orbamira::packctl {

/// What the words are made from.
struct StatusFacts {
  StatusRecord record = {};
  bool is_interrupted = false;                            ///< work is in progress in the record, and nobody is at work
  std::optional<InstalledPack> installed = {};            ///< empty without one
  std::vector<std::string> codecs = {};                   ///< of the installed pack
  std::optional<AnsweredCheck> check = {};                ///< the last that the server answered
  std::optional<HistoryEntry> last_entry = {};            ///< of the history
  std::optional<std::chrono::sys_days> support_end = {};  ///< the last day of support
  std::optional<Hold> hold = {};                          ///< the owner's, that is in force
  std::optional<Wait> wait = {};                          ///< why the pack on offer is not installed
  std::vector<updater::RejectedVersion> rejected = {};
};

/// Whether somebody has to do something.
enum class Health { kGood, kWaits, kBad };

Health HealthOf(const StatusFacts& facts);

/// The first line: "Up to date: orbamira-hevc 1.0 is installed."
std::string StatusHeadline(const StatusFacts& facts);

/// The lines below it: what is installed, what is available, the last check, and what to do.
std::string StatusLines(const StatusFacts& facts);

/// What is recorded, and what it permits: for those who look closer.
std::string RecordLines(const StatusRecord& record);

}  // namespace orbamira::packctl
