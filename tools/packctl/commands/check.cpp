#include <fcntl.h>

#include <algorithm>
#include <array>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_values.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"
#include "platform/printable.h"
#include "tools/packctl/commands/automatic.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/commands/trial.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/history.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/release_words.h"
#include "tools/packctl/view/wait_words.h"
#include "updater/health.h"
#include "updater/recovery.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

/// What a check found on the server, and on this machine.
struct Versions {
  std::optional<std::string> offered = {};
  std::optional<std::string> installed = {};
};

Versions VersionsWith(std::optional<std::string> offered) {
  std::string installed = updater::KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath);
  return {.offered = std::move(offered), .installed = installed.empty() ? std::nullopt : std::optional(installed)};
}

Outcome WithVersions(Outcome outcome, const Versions& versions) {
  outcome.members["version"] = TextOrNull(versions.offered);
  outcome.members["installed_version"] = TextOrNull(versions.installed);
  return outcome;
}

std::string InstalledWords(const Versions& versions) {
  return versions.installed ? Printable(*versions.installed) + " is installed" : "none is installed";
}

/// Whether there are settings that are not believed. They name nobody either, but that is a fault.
bool SettingsAreIgnored() {
  return std::ranges::any_of(std::array{path::kPkgSetting, path::kDefaultPkgSetting}, [](const char* file) {
    const UniqueFd settings = OpenFile(file, O_RDONLY);
    return settings.valid() && !WhyDistrusted(settings.get(), "it").empty();
  });
}

Outcome NobodyToAsk() {
  Outcome outcome = EndOfChange(kExitNothingToDo, "no_address");
  outcome.text =
      std::string("No update server is set. Set ") + common::kPackUpdateServer + " in " + path::kPkgSetting + ".\n";
  return WithVersions(std::move(outcome), VersionsWith(std::nullopt));
}

std::string NewPackWords(const updater::PackManager& manager, const Versions& versions) {
  const bool for_aac = updater::ChoosePack(manager).reason == updater::PackReason::kAacRequested;
  const std::string what = for_aac ? " with AAC, which an application needs, is available (" : " is available (";
  return Printable(*versions.offered) + what + InstalledWords(versions) + "). Run: sudo packctl update\n";
}

Outcome WithOthers(Outcome outcome, const OtherReleases& others) {
  outcome.members["staged"] = StagedReleaseJson(others.staged);
  if (others.staged) {
    outcome.members["staged"]["code"] = CodeOf(FailureReason::kNotInRollout);
  }
  outcome.text += OtherReleasesLines(others);
  return outcome;
}

/// The command that installed nothing because somebody cancelled it; empty when the last one was not cancelled.
std::optional<std::string> CancelledCommand() try {
  const History history = ReadHistory();
  const auto last = std::ranges::find_if(history.entries.rbegin(), history.entries.rend(), [](const auto& entry) {
    return entry.command == "update" || entry.command == "install" || entry.command == "download";
  });
  const bool is_cancelled = last != history.entries.rend() && last->exit == kExitCancelled;
  return is_cancelled ? std::optional(last->command) : std::nullopt;
} catch (const std::exception&) {
  return std::nullopt;  // an unreadable history is for the doctor to report
}

std::string RepetitionWords(const Versions& versions) {
  const std::optional<std::string> cancelled = CancelledCommand();
  return "The last " + cancelled.value_or("update") + (cancelled ? " was cancelled; " : " failed; ") +
         Printable(*versions.offered) + " can be installed again. Run: sudo packctl update\n";
}

Outcome NewPack(const updater::PackManager& manager, bool repeats) {
  const Versions versions = VersionsWith(ReadStatus().new_version);
  Outcome outcome = EndOfChange(kExitDone, "new_pack");
  outcome.change->happened = true;
  outcome.change->offer = PackIdentity{.version = *versions.offered};
  outcome.text = repeats ? RepetitionWords(versions) : NewPackWords(manager, versions);
  return WithVersions(std::move(outcome), versions);
}

Outcome NothingNew(const std::string& declined) {
  const Versions versions = VersionsWith(declined);
  Outcome outcome = EndOfChange(kExitNothingToDo, "nothing_new");
  outcome.text = "Nothing new: " + InstalledWords(versions) + ", the server offers " + Printable(declined) + ".\n";
  outcome.problems = DoubtsAbout(outcome.change->status);
  return WithVersions(std::move(outcome), versions);
}

/// Whether the pack is one whose package was refused, and what comes of that.
std::string RefusalLine() {
  const std::optional<OfferNote> note = ReadOfferNote();
  const std::optional<Wait> wait = note && note->refusal ? WaitOf(ReadStatus()) : std::nullopt;
  return wait && wait->reason == FailureReason::kPackageRefused ? "By itself it waits: " + WaitWords(*wait) + ".\n"
                                                                : "";
}

/// What is found is kept for the timers. They do nothing about an offer that is not kept, so that a check that cannot
/// keep it has failed.
Outcome WithOfferKept(const UpdateObjects& objects, Outcome outcome) {
  std::vector<std::string> problems = KeepOffer(objects.handler->offer());
  if (problems.empty()) {
    outcome.text += RefusalLine();
    return outcome;
  }
  Outcome failed = FailedChange("check");
  failed.problems.insert(failed.problems.begin(), problems.begin(), problems.end());
  failed.members = std::move(outcome.members);
  return failed;
}

/// A pack that is downloaded and still on offer. The library's check would have it downloaded again.
Outcome Downloaded(const StatusRecord& record) {
  NoteAnsweredCheck(record.new_version, true);
  const Versions versions = VersionsWith(record.new_version);
  Outcome outcome = EndOfChange(kExitDone, "new_pack");
  outcome.text =
      Printable(record.new_version) + " is downloaded (" + InstalledWords(versions) + "). Run: sudo packctl install\n";
  return WithVersions(std::move(outcome), versions);
}

/// Gives a downloaded pack up that the maker has withdrawn; false when there is none.
bool GivesUpDownload(const Context& context, const UpdateObjects& objects, const StatusRecord& before) {
  const bool is_downloaded =
      before.status == updater::kStatusNeedInstall || before.status == updater::kStatusInstallFailed;
  if (!is_downloaded || !objects.handler->HasWithdrawn(before.new_version)) {
    return false;
  }
  GiveUpDownload(context, *objects.status);
  return true;
}

/// A version that is not installed by itself is no work, nor a failure to be repeated: ends as the way back does.
void SettleRejected(const Context& context, const UpdateObjects& objects, updater::PackStatus recorded) {
  if (!IsUnderWay(recorded) && recorded != updater::kStatusLost && recorded != updater::kStatusUpToDate) {
    GiveUpDownload(context, *objects.status);
  }
}

Outcome RunCheck(Context& context) {
  if (updater::KOSHelper::Create()->GetPackUpdateServerUrl().empty() && !SettingsAreIgnored()) {
    return NobodyToAsk();
  }
  const UpdateObjects objects = MakeUpdateObjects();
  const StatusRecord before = ReadStatusIfPossible();
  if (before.status == updater::kStatusNeedInstall && !updater::IsRejected(before.new_version) &&
      IsStillOffered(objects, before).value_or(false)) {
    return WithOfferKept(objects, Downloaded(before));
  }
  const bool found = objects.manager->CheckNewPack();
  if (const auto& rejected = objects.handler->rejected_version(); !found && rejected) {
    ForgetKeptOffer();
    SettleRejected(context, objects, before.status);
    return WithOthers(RejectedOffer(*rejected, objects.handler->other_releases()), objects.handler->other_releases());
  }
  const std::optional<std::string>& declined = objects.handler->declined_version();
  const bool gives_up = !found && declined && GivesUpDownload(context, objects, before);
  const bool repeats =
      !found && declined && updater::RepeatFailedUpdate(*context.lock, *objects.manager, *objects.status);
  if (found || repeats) {
    Outcome outcome =
        WithOfferKept(objects, WithOthers(NewPack(*objects.manager, repeats), objects.handler->other_releases()));
    NoteAnswer(outcome, objects.handler->offered_version(), true, objects.handler->other_releases());
    return outcome;
  }
  if (declined) {
    ForgetKeptOffer();
    Outcome outcome = WithOthers(NothingNew(*declined), objects.handler->other_releases());
    NoteAnswer(outcome, *declined, false, objects.handler->other_releases());
    if (gives_up) {
      outcome.change->happened = true;
      outcome.problems.push_back("the maker has withdrawn " + Printable(before.new_version) + ", which was downloaded");
    }
    return outcome;
  }
  Outcome failed = FailedChange("check");
  BlameRequirements(*objects.manager, failed);
  return WithVersions(std::move(failed), VersionsWith(std::nullopt));
}

}  // namespace

Outcome Check(Context& context) {
  Outcome outcome = RunCancellable(context, &AfterTrial<RunCheck>);
  return outcome.exit == kExitCancelled ? WithVersions(std::move(outcome), VersionsWith(std::nullopt)) : outcome;
}

}  // namespace orbamira::packctl
