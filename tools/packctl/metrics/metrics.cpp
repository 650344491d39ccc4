#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/constants.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/file_status.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/commands/status.h"
#include "tools/packctl/metrics/exposition.h"
#include "tools/packctl/policy/judged_offer.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/rejection.h"
#include "tools/packctl/record/support_period.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

using Metrics = std::vector<Metric>;

Metric Gauge(const char* name, const char* help, std::int64_t value) { return {name, help, {{.value = value}}}; }

Metric Flag(const char* name, const char* help, bool value) { return Gauge(name, help, value ? 1 : 0); }

// A text, in the labels of a number that says nothing.
Metric Info(const char* name, const char* help, Labels labels) {
  return {name, help, {{.labels = std::move(labels), .value = 1}}};
}

Sample CodecSample(const char* codec, const char* marker) {
  std::error_code error;
  return {.labels = {{"codec", codec}}, .value = std::filesystem::exists(StatusOf(marker, error)) ? 1 : 0};
}

void AddPack(Metrics& metrics) {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  const std::string own_version = updater::KOSHelper::Create()->GetVersionFromPath(kPackageInfoPath);
  metrics.push_back(Info("orbamira_updater_info", "The version of the updater", {{"version", own_version}}));
  metrics.push_back(Flag("orbamira_pack_installed", "Whether a codec pack is installed", pack.has_value()));
  if (pack) {
    metrics.push_back(Info("orbamira_pack_info", "The installed codec pack",
                           {{"package", pack->identity.package}, {"version", pack->identity.version}}));
    metrics.push_back(
        Gauge("orbamira_pack_installed_timestamp_seconds", "When the codec pack was installed", pack->updated));
  }
  metrics.push_back({"orbamira_pack_codec",
                     "Whether the installed codec pack has the codec",
                     {CodecSample("hevc", path::kHasHevcPath), CodecSample("aac", path::kHasAacPath)}});
}

// Where "packctl rollback" leads, and what is not installed again.
void AddWayBack(Metrics& metrics) {
  const std::optional<std::string> previous = updater::PreviousVersion();
  metrics.push_back(Flag("orbamira_previous_pack_kept", "Whether there is a pack to go back to", previous.has_value()));
  if (previous) {
    metrics.push_back(Info("orbamira_previous_pack_info", "The pack to go back to", {{"version", *previous}}));
  }
  Metric rejected{"orbamira_rejected_info", "A version that is not installed again, with the code of the reason"};
  for (const updater::RejectedVersion& version : updater::RejectedVersions()) {
    rejected.samples.push_back({{{"version", version.version}, {"code", RejectionCode(version)}}, 1});
  }
  metrics.push_back(rejected);
}

// That the record is damaged is a finding like others.
std::optional<SeenStatus> LookIfReadable() try { return LookAtStatus(); } catch (const std::domain_error&) {
  return std::nullopt;
}

void AddWait(const std::optional<Wait>& wait, Metrics& metrics) {
  if (!wait) {
    return;
  }
  metrics.push_back(Info("orbamira_offer_waits", "Why the available codec pack is not installed yet",
                         {{"code", CodeOf(wait->reason)}}));
  if (wait->until) {
    metrics.push_back(
        Gauge("orbamira_offer_waits_until_timestamp_seconds", "When this reason ends at the latest", *wait->until));
  }
}

void AddRecord(Metrics& metrics) {
  const std::optional<SeenStatus> seen = LookIfReadable();
  metrics.push_back(Flag("orbamira_record_readable", "Whether the recorded status can be read", seen.has_value()));
  if (!seen) {
    return;
  }
  metrics.push_back(Info("orbamira_status", "The recorded status", {{"status", StatusText(seen->record.status)}}));
  metrics.push_back(Flag("orbamira_update_interrupted", "Whether an update was cut short and nobody is at work",
                         seen->is_interrupted));
  if (!seen->record.new_version.empty()) {
    metrics.push_back(Info("orbamira_offer_info", "The codec pack that is recorded as available",
                           {{"version", seen->record.new_version}}));
  }
  AddWait(WaitOf(seen->record), metrics);
}

// The newest check that failed, unless a later one was answered.
const HistoryEntry* FailedCheck(const History& history, const std::optional<AnsweredCheck>& answered) {
  const auto& entries = history.entries;
  const auto newest = std::find_if(entries.rbegin(), entries.rend(), [](const HistoryEntry& entry) {
    return entry.command == "check" && entry.exit == kExitFailed;
  });
  const bool is_last = newest != entries.rend() && (!answered || newest->time > answered->time);
  return is_last ? &*newest : nullptr;
}

std::string CodeOf(const HistoryEntry& entry) {
  return entry.failure ? entry.failure->code : CodeOf(FailureReason::kUnexpected);
}

void AddReleases(const AnsweredCheck& check, Metrics& metrics) {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  metrics.push_back(Flag("orbamira_pack_withdrawn", "Whether the maker has withdrawn the installed codec pack",
                         pack && pack->identity.version == check.others.withdrawn));
  if (check.others.staged) {
    metrics.push_back(Info("orbamira_staged_info", "A newer codec pack that this appliance is not offered yet",
                           {{"version", check.others.staged->version}}));
  }
}

void AddChecks(const History& history, Metrics& metrics) {
  const std::optional<AnsweredCheck> answered = ReadAnsweredCheck();
  const HistoryEntry* const failed = FailedCheck(history, answered);
  if (answered) {
    metrics.push_back(Gauge("orbamira_last_answer_timestamp_seconds", "When the update server last answered a check",
                            answered->time));
    AddReleases(*answered, metrics);
  }
  if (answered || failed != nullptr) {
    metrics.push_back(Gauge("orbamira_last_check_timestamp_seconds", "When the update server was last asked",
                            failed != nullptr ? failed->time : answered->time));
    metrics.push_back({"orbamira_last_check_failed",
                       "Whether the last check failed, with the code of the reason",
                       {failed != nullptr ? Sample{.labels = {{"code", CodeOf(*failed)}}, .value = 1} : Sample{}}});
  }
}

// Of the newest entries alone: how far back the history goes differs between appliances.
void AddFailures(const History& history, Metrics& metrics) {
  constexpr std::time_t kThirtyDays = std::time_t{30} * 24 * 60 * 60;
  const std::time_t begin = std::time(nullptr) - kThirtyDays;
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
  if (const std::optional<std::chrono::sys_days> last = ReadSupportEnd()) {
    const std::chrono::sys_seconds end = *last + std::chrono::days(1);
    metrics.push_back(Gauge("orbamira_support_end_timestamp_seconds", "When the maker's support of the appliance ends",
                            end.time_since_epoch().count()));
  }
}

}  // namespace

Outcome ShowMetrics(Context& context) {
  constexpr mode_t kMode = 0644;
  const History history = ReadHistory();
  Metrics metrics;
  AddPack(metrics);
  AddWayBack(metrics);
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
