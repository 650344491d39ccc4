#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>

#include "platform/constants.h"
#include "platform/posix/atomic_file.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/commands/status.h"
#include "tools/packctl/metrics/exposition.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/support_period.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

using Metrics = std::vector<Metric>;

Metric Gauge(const char* name, const char* help, std::int64_t value) { return {name, help, {{.value = value}}}; }

// A number that is not always there.
Metric Gauge(const char* name, const char* help, std::optional<std::int64_t> value) {
  return value ? Gauge(name, help, *value) : Metric{name, help};
}

void AddPack(Metrics& metrics) {
  const auto exists = [](const char* file) {
    std::error_code error;
    return std::int64_t{std::filesystem::exists(file, error)};
  };
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  metrics.push_back({"orbamira_updater_info",
                     "The version of the updater",
                     {{{{"version", updater::KOSHelper::Create()->GetVersionFromPath(kPackageInfoPath)}}, 1}}});
  metrics.push_back(Gauge("orbamira_pack_installed", "Whether a codec pack is installed", std::int64_t{!!pack}));
  Metric info{"orbamira_pack_info", "The installed codec pack"};
  if (pack) {
    info.samples = {{{{"package", pack->identity.package}, {"version", pack->identity.version}}, 1}};
  }
  metrics.push_back(info);
  metrics.push_back(Gauge("orbamira_pack_installed_timestamp_seconds", "When the codec pack was installed",
                          pack ? std::optional<std::int64_t>(pack->updated) : std::nullopt));
  metrics.push_back(
      {"orbamira_pack_codec",
       "Whether the installed codec pack has the codec",
       {{{{"codec", "hevc"}}, exists(path::kHasHevcPath)}, {{{"codec", "aac"}}, exists(path::kHasAacPath)}}});
}

// That the record is damaged is a finding like others.
void AddRecord(Metrics& metrics) {
  std::optional<SeenStatus> seen;
  try {
    seen = LookAtStatus();
  } catch (const std::domain_error&) {
  }
  metrics.push_back(Gauge("orbamira_record_readable", "Whether the recorded status can be read", std::int64_t{!!seen}));
  if (!seen) {
    return;
  }
  metrics.push_back({"orbamira_status", "The recorded status", {{{{"status", StatusText(seen->record.status)}}, 1}}});
  metrics.push_back(Gauge("orbamira_update_interrupted", "Whether an update was cut short and nobody is at work",
                          std::int64_t{seen->is_interrupted}));
  if (!seen->record.new_version.empty()) {
    metrics.push_back({"orbamira_offer_info",
                       "The codec pack that is recorded as available",
                       {{{{"version", seen->record.new_version}}, 1}}});
  }
}

// The newest check that failed, unless a later one was answered.
const HistoryEntry* FailedCheck(const History& history, const std::optional<AnsweredCheck>& answered) {
  for (auto entry = history.entries.rbegin(); entry != history.entries.rend(); ++entry) {
    if (entry->command == "check" && entry->exit == kExitFailed) {
      return !answered || entry->time > answered->time ? &*entry : nullptr;
    }
  }
  return nullptr;
}

std::string CodeOf(const HistoryEntry& entry) {
  return entry.failure ? entry.failure->code : CodeOf(FailureReason::kUnexpected);
}

void AddChecks(const History& history, Metrics& metrics) {
  const std::optional<AnsweredCheck> answered = ReadAnsweredCheck();
  const auto answer = answered ? std::optional<std::int64_t>(answered->time) : std::nullopt;
  const HistoryEntry* const failed = FailedCheck(history, answered);
  metrics.push_back(
      Gauge("orbamira_last_answer_timestamp_seconds", "When the update server last answered a check", answer));
  metrics.push_back(Gauge("orbamira_last_check_timestamp_seconds", "When the update server was last asked",
                          failed != nullptr ? std::optional<std::int64_t>(failed->time) : answer));
  Metric result{"orbamira_last_check_failed", "Whether the last check failed, with the code of the reason"};
  if (failed != nullptr) {
    result.samples = {{{{"code", CodeOf(*failed)}}, 1}};
  } else if (answered) {
    result.samples = {{}};
  }
  metrics.push_back(result);
}

// Of the newest entries alone: how far back the history goes differs between appliances.
void AddFailures(const History& history, Metrics& metrics) {
  const std::time_t begin =
      std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() - std::chrono::days(30));
  std::map<std::pair<std::string, std::string>, std::int64_t> counts;
  for (const HistoryEntry& entry : history.entries) {
    if (entry.exit == kExitFailed && entry.time >= begin) {
      ++counts[{entry.command, CodeOf(entry)}];
    }
  }
  Metric failures{"orbamira_recent_failures", "Commands that failed in the last 30 days, by the code of the reason"};
  for (const auto& [what, count] : counts) {
    failures.samples.push_back({{{"command", what.first}, {"code", what.second}}, count});
  }
  metrics.push_back(failures);
}

void AddSupport(Metrics& metrics) {
  const std::optional<std::chrono::sys_days> last = ReadSupportEnd();
  metrics.push_back(Gauge("orbamira_support_end_timestamp_seconds", "When the maker's support of the appliance ends",
                          last ? std::optional<std::int64_t>(
                                     std::chrono::sys_seconds(*last + std::chrono::days(1)).time_since_epoch().count())
                               : std::nullopt));
}

}  // namespace

Outcome ShowMetrics(Context& context) {
  constexpr mode_t kMode = 0644;
  const History history = ReadHistory();
  Metrics metrics;
  AddPack(metrics);
  AddRecord(metrics);
  AddChecks(history, metrics);
  AddFailures(history, metrics);
  AddSupport(metrics);
  Outcome outcome{.text = Exposition(metrics), .problems = history.Problems()};
  outcome.members["metrics"] = MetricsJson(metrics);
  if (!context.options.output.empty()) {
    static_cast<void>(ReplaceFile(context.options.output, outcome.text, kMode, Durability::kVisible));
    outcome.text.clear();
  }
  return outcome;
}

}  // namespace orbamira::packctl
