#include "tools/packctl/view/status_report.h"

#include "platform/printable.h"
#include "tools/packctl/record/support_period.h"
#include "tools/packctl/view/local_time.h"
#include "tools/packctl/view/progress_text.h"
#include "tools/packctl/view/release_words.h"
#include "tools/packctl/view/result_words.h"
#include "tools/packctl/view/status_words.h"
#include "tools/packctl/view/wait_words.h"

namespace orbamira::packctl {
namespace {

using updater::PackStatus;

// Why the recorded status is a failed one; empty when the history does not say.
std::optional<Failure> ReasonOf(const StatusFacts& facts) {
  const bool is_told = facts.last_entry && facts.last_entry->status == StatusText(facts.record.status);
  return is_told && IsFailed(facts.record.status) ? facts.last_entry->failure : std::nullopt;
}

bool IsCancelled(const StatusFacts& facts) {
  const std::optional<Failure> reason = ReasonOf(facts);
  return reason && reason->code == CodeOf(FailureReason::kCancelled);
}

std::string WorkWords(const StatusRecord& record) {
  const std::string version = record.new_version.empty() ? "" : " to " + Printable(record.new_version);
  std::string how;
  if (!record.install_step.empty()) {
    how = std::string(": ") + StepWords(record.install_step);
  } else if (record.download_size_now > 0 || record.download_size_total > 0) {
    how = ": downloaded " + FormatProgress({record.download_size_now, record.download_size_total});
  }
  return "An update" + version + " is at work" + how + ".";
}

std::string FailedWords(const StatusFacts& facts) {
  if (IsCancelled(facts)) {
    return "The last " + facts.last_entry->command + " was cancelled.";
  }
  const std::optional<Failure> reason = ReasonOf(facts);
  return Capitalized(StatusMeaning(facts.record.status)) + (reason ? ": " + Printable(reason->message) : "") + ".";
}

std::string InstalledWords(const StatusFacts& facts) {
  if (!facts.installed) {
    return "no codec pack";
  }
  const PackIdentity& pack = facts.installed->identity;
  const std::string codecs = facts.codecs.empty() ? "" : " (" + Joined(facts.codecs) + ")";
  const bool is_withdrawn = facts.check && facts.check->others.withdrawn == pack.version;
  return Printable(pack.package + " " + pack.version) + codecs + ", since " + LocalTime(facts.installed->updated) +
         (is_withdrawn ? "; the maker has withdrawn it" : "");
}

std::string AvailableWords(const StatusFacts& facts) {
  if (!facts.record.new_version.empty()) {
    const std::string name = facts.record.new_pack_name.empty() ? "" : facts.record.new_pack_name + " ";
    return Printable(name + facts.record.new_version);
  }
  if (!facts.check || facts.check->version.empty()) {
    return "not known";
  }
  if (facts.check->others.staged) {
    return StagedWords(*facts.check->others.staged);
  }
  const bool is_installed = facts.installed && facts.installed->identity.version == facts.check->version;
  return is_installed || !facts.check->is_news ? "nothing newer" : Printable(facts.check->version);
}

// A line for each rejected version; mostly none.
std::string RejectedLines(const StatusFacts& facts) {
  std::string lines;
  for (const updater::RejectedVersion& version : facts.rejected) {
    lines += "Rejected:   " + Printable(version.version + ": " + version.reason) + "\n";
  }
  return lines;
}

std::string CheckWords(const StatusFacts& facts) {
  const std::optional<HistoryEntry>& entry = facts.last_entry;
  if (entry && entry->command == "check" && entry->failure && (!facts.check || facts.check->IsOlderThan(entry->time))) {
    const bool is_cancelled = entry->failure->code == CodeOf(FailureReason::kCancelled);
    return LocalTime(entry->time) + (is_cancelled ? ", cancelled" : ", failed: " + Printable(entry->failure->message));
  }
  if (!facts.check) {
    return "never";
  }
  const std::string found = facts.check->is_news ? "found " + Printable(facts.check->version) : "nothing new";
  return LocalTime(facts.check->time) + (facts.check->version.empty() ? "" : ", " + found);
}

std::string SupportLine(const StatusFacts& facts) {
  if (!facts.support_end) {
    return "";
  }
  const std::string day = DayText(*facts.support_end);
  return "\nSupported:  " + (HasPassed(*facts.support_end)
                                 ? "ended on " + day + "; the maker may no longer close security holes"
                                 : "until " + day);
}

std::string RemedyWords(const StatusFacts& facts) {
  const PackStatus status = facts.record.status;
  if (IsUnderWay(status) && !facts.is_interrupted) {
    return "Wait. To watch: packctl status --watch";
  }
  if (HealthOf(facts) == Health::kGood) {
    return "nothing";
  }
  const std::optional<Failure> reason = ReasonOf(facts);
  if (reason && !reason->remedy.empty()) {
    return Printable(reason->remedy);
  }
  if (facts.wait && facts.wait->reason == FailureReason::kHeld) {
    return "Run: sudo packctl unhold";
  }
  if (facts.wait && facts.wait->reason != FailureReason::kWaitsForPerson) {
    const bool is_refused = facts.wait->reason == FailureReason::kPackageRefused;
    return std::string(is_refused ? "nothing; to try again" : "nothing; to install now") + ": sudo packctl " +
           NextCommand(status);
  }
  const bool is_settled = status == updater::kStatusLost || status == updater::kStatusUpToDate;
  return std::string("Run: sudo packctl ") + (is_settled && !facts.installed ? "update" : NextCommand(status));
}

}  // namespace

Health HealthOf(const StatusFacts& facts) {
  const PackStatus status = facts.record.status;
  if (facts.is_interrupted || (IsFailed(status) && !IsCancelled(facts))) {
    return Health::kBad;
  }
  return status == updater::kStatusUpToDate && facts.installed ? Health::kGood : Health::kWaits;
}

std::string StatusHeadline(const StatusFacts& facts) {
  const std::string version = Printable(facts.record.new_version);
  const PackStatus status = facts.record.status;
  if (IsUnderWay(status)) {
    return facts.is_interrupted ? Capitalized(kInterruptedWords) + "." : WorkWords(facts.record);
  }
  if (IsFailed(status)) {
    return FailedWords(facts);
  }
  if (status == updater::kStatusNeedDownload) {
    return version + " is available.";
  }
  if (status == updater::kStatusNeedInstall) {
    return version + " is downloaded and can be installed.";
  }
  if (!facts.installed) {
    return StaysSentence(std::nullopt);
  }
  return status == updater::kStatusUpToDate ? "Up to date." : "A codec pack is installed, and nothing is recorded yet.";
}

std::string StatusLines(const StatusFacts& facts) {
  // That a person has to act is what there is to do.
  const bool is_told = facts.wait && facts.wait->reason != FailureReason::kWaitsForPerson;
  const std::string wait = is_told ? "\nWaits:      " + WaitWords(*facts.wait) : "";
  const std::string hold = facts.hold && !is_told ? "\nHeld:       " + HoldWords(*facts.hold) : "";
  return "Installed:  " + InstalledWords(facts) + "\nAvailable:  " + AvailableWords(facts) + wait + hold + "\n" +
         RejectedLines(facts) + "Last check: " + CheckWords(facts) + SupportLine(facts) +
         "\nTo do:      " + RemedyWords(facts) + "\n";
}

std::string RecordLines(const StatusRecord& record) {
  std::string text =
      std::string("Recorded:   ") + StatusText(record.status) + " (" + StatusMeaning(record.status) + ")\n";
  if (record.download_size_now > 0 || record.download_size_total > 0) {
    text += "Download:   " + FormatProgress({record.download_size_now, record.download_size_total}) + "\n";
  }
  if (!record.install_step.empty()) {
    text += std::string("Step:       ") + StepWords(record.install_step) + "\n";
  }
  return text + "Permitted:  " + PermittedCommands(record.status) + "\n";
}

}  // namespace orbamira::packctl
