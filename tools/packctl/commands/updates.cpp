#include <json/value.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "platform/constants.h"
#include "platform/json/json_values.h"
#include "platform/posix/errors.h"
#include "platform/printable.h"
#include "platform/version.h"
#include "tools/packctl/commands/automatic.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/commands/trial.h"
#include "tools/packctl/host/file_install.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/host/watched_work.h"
#include "tools/packctl/host/withdrawal.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/failure_words.h"
#include "tools/packctl/view/progress_view.h"
#include "tools/packctl/view/release_words.h"
#include "tools/packctl/view/result_words.h"
#include "updater/health.h"
#include "updater/recovery.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

using Clock = std::chrono::steady_clock;

/// One of the library's three flows.
struct Flow {
  const char* name;  ///< a noun and a verb
  std::function<bool(const UpdateObjects& objects)> run;
  bool installs;  ///< a pack is in place when it succeeded
};

void Show(ProgressView& view) {
  try {
    view.Show(ReadStatus(), ProgressView::Clock::now());
  } catch (const std::exception&) {
    // A record that cannot be read costs one update of the display; the result comes from the work itself.
    return;
  }
}

/// Meanwhile tells what plugins print as they print it, and shows the progress where there is a view.
bool RunShown(const Context& context, ProgressView* view, const std::function<bool()>& work) {
  Console& console = context.console;
  const auto look = [&console, view, quiet = context.options.quiet] {
    const std::vector<std::string> lines = quiet ? std::vector<std::string>() : console.TakeOther();
    if (view != nullptr && !lines.empty()) {
      view->Finish();
    }
    for (const std::string& line : lines) {
      console.Complain(line);
    }
    if (view != nullptr) {
      Show(*view);
    }
  };
  return RunWatched(work, look);
}

bool RunWithProgress(const Context& context, const std::function<bool()>& work) {
  Console& console = context.console;
  const auto view = MakeProgressView(
      console.IsTerminal(), [&console](std::string_view text) { console.Print(text); },
      [&console] { return console.Columns(); });
  const bool done = RunShown(context, view.get(), work);
  view->Finish();
  return done;
}

std::optional<PackIdentity> InstalledIdentity() {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  return pack ? std::optional(PackIdentity{Printable(pack->identity.package), Printable(pack->identity.version)})
              : std::nullopt;
}

Outcome Downloaded() {
  const StatusRecord record = ReadStatus();
  Outcome outcome = EndOfChange(kExitDone, "done");
  outcome.change->happened = true;
  outcome.change->offer = PackIdentity{record.new_pack_name, record.new_version};
  const std::optional<PackIdentity> pack = InstalledIdentity();
  outcome.text = "Downloaded " + Printable(record.new_version) + ". " +
                 StaysSentence(pack ? std::optional(pack->version) : std::nullopt) + " Run: sudo packctl install\n";
  return outcome;
}

Outcome Installed(const std::optional<PackIdentity>& before, Clock::duration duration) {
  Outcome outcome = EndOfChange(kExitDone, "done");
  outcome.change->happened = true;
  outcome.problems = ForgetKeptOffer();
  outcome.text = InstalledSentence(InstalledIdentity().value_or(PackIdentity()), before,
                                   std::chrono::duration_cast<std::chrono::milliseconds>(duration)) +
                 "\n";
  return outcome;
}

Outcome RunFlow(const Context& context, const UpdateObjects& objects, const Flow& flow) {
  const Clock::time_point begin = Clock::now();
  const std::optional<PackIdentity> before = InstalledIdentity();
  updater::PrepareUpdate(*context.lock);
  const auto work = [&] { return flow.run(objects); };
  const bool is_silent = context.options.json || context.options.quiet;
  const bool done = is_silent ? RunShown(context, nullptr, work) : RunWithProgress(context, work);
  if (const auto status = objects.status->refused_status()) {
    return ForbiddenChange(flow.name, *status);
  }
  if (!done) {
    return objects.status->permitted() ? RecoveredChange(context, flow.name) : FailedChange(flow.name);
  }
  if (!flow.installs) {
    updater::EndRemovals(*context.lock);
    return Downloaded();
  }
  if (!updater::ConfirmInstall(*context.lock, *objects.status)) {
    return RecoveredChange(context, flow.name);
  }
  if (!PassesTrial(*context.lock, objects)) {
    return FailedChange(flow.name);
  }
  return Installed(before, Clock::now() - begin);
}

/// Runs the flow and says what it was about.
Outcome RunAbout(const Context& context, const UpdateObjects& objects, const std::string& recorded_version,
                 const Flow& flow) {
  Outcome outcome = RunFlow(context, objects, flow);
  const std::string& offered = objects.handler->offered_version();
  if (!offered.empty()) {
    NoteAnsweredCheck(offered, true, objects.handler->other_releases());
  }
  outcome.version = offered.empty() ? recorded_version : offered;
  if (outcome.exit == kExitFailed) {
    BlameRequirements(*objects.manager, outcome);
    const Console::Held& held = context.console.LookAtHeld();
    KeepRefusal(objects.handler->offer(), outcome.version,
                ExplainFailure(flow.name, {held.other, held.log, outcome.problems}));
  }
  return outcome;
}

/// False also where the record cannot be read, which is for the flow itself to tell.
bool MayInstall(AskedStatusHelper& status) {
  try {
    return status.CanDoInstall(status.GetPackStatus());
  } catch (const std::exception&) {
    return false;
  }
}

/// The flow unpacks the package after plugins were told and the old pack was moved aside. A package that would be
/// refused then is refused here, where that costs nothing.
bool InstallWhatIsAccepted(const UpdateObjects& objects) {
  AskedStatusHelper& status = *objects.status;
  if (!MayInstall(status)) {
    return objects.manager->Install();
  }
  objects.core->ExpectPack(status.GetPackNewName(), status.GetPackNewVersion());
  if (objects.packages->Accepts(path::kDownloadedOpkPath)) {
    return objects.manager->Install();
  }
  status.SetAsInstallFailed(status.GetPackNewVersion(), status.GetPackNewName());
  return false;
}

Outcome AlreadyUpToDate(const std::string& installed, const std::string& offered) {
  Outcome outcome = EndOfChange(kExitNothingToDo, "nothing_new");
  outcome.members["version"] = offered;
  outcome.members["installed_version"] = installed;
  outcome.text = "Already up to date (" + Printable(installed) + ").\n";
  return outcome;
}

Outcome NothingNewer(const std::string& installed, const std::string& offered, const OtherReleases& others) {
  Outcome outcome = AlreadyUpToDate(installed, offered);
  NoteAnswer(outcome, offered, false, others);
  outcome.text += OtherReleasesLines(others);
  return outcome;
}

/// Asks the server, where the record names no offer yet or a version is rejected, whether there is anything newer than
/// the installed pack. The end of the update when there is not (nor, with `older`, anything older), or when the server
/// gives no answer; empty when the update is to begin.
std::optional<Outcome> EndWithoutUpdate(const UpdateObjects& objects, const StatusRecord& record, bool older) {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  const bool is_settled = record.status == updater::kStatusUpToDate || record.status == updater::kStatusLost;
  const bool asks_for_news = pack && is_settled;
  if (!asks_for_news && updater::RejectedVersions().empty()) {
    return std::nullopt;
  }
  Json::Value offer;
  if (!objects.manager->FetchDownloadInfo(updater::ChoosePack(*objects.manager).with_aac, offer)) {
    return FailedChange("update");
  }
  if (const std::string version = objects.handler->OfferedVersion(offer); updater::IsRejected(version)) {
    return RejectedOffer(version, objects.handler->other_releases());
  }
  if (!asks_for_news || objects.manager->IsAacNeeded() || objects.handler->CheckNewVersion(offer)) {
    return std::nullopt;
  }
  const std::optional<std::string>& declined = objects.handler->declined_version();
  if (older && declined && IsNewVersion(*declined, pack->identity.version)) {
    return std::nullopt;
  }
  return declined ? std::optional(NothingNewer(pack->identity.version, *declined, objects.handler->other_releases()))
                  : std::nullopt;
}

/// The objects, with a handler that takes the releases that the user asked for.
UpdateObjects ObjectsFor(const Context& context) {
  UpdateObjects objects = MakeUpdateObjects();
  if (context.options.now) {
    objects.handler->TakeStagedReleases();
  }
  if (context.options.older) {
    objects.handler->AcceptOlder();
  }
  return objects;
}

Flow DownloadFlow() {
  return {"download", [](const UpdateObjects& made) { return made.manager->Download(); }, false};
}

Flow InstallFlow() { return {"install", &InstallWhatIsAccepted, true}; }

Flow UpdateFlow() {
  return {"update", [](const UpdateObjects& made) { return made.manager->DownloadAndInstall(); }, true};
}

Outcome RunDownload(Context& context) {
  const UpdateObjects objects = ObjectsFor(context);
  return RunAbout(context, objects, ReadStatusIfPossible().new_version, DownloadFlow());
}

Outcome RunFileInstall(const Context& context) {
  const UpdateObjects objects = MakeUpdateObjects();
  const Options& options = context.options;
  FileInstall install(
      objects,
      {.file = options.file, .trust = options.trust, .reinstall = options.reinstall, .allow_older = options.older});
  Outcome outcome =
      RunFlow(context, objects, {"install", [&install](const UpdateObjects& /*made*/) { return install.Run(); }, true});
  if (install.is_installed_already()) {
    return AlreadyUpToDate(install.version(), install.version());
  }
  if (!outcome.failure) {
    outcome.failure = install.refusal();
  }
  if (outcome.exit == kExitFailed) {
    BlameRequirements(*objects.manager, outcome);
  }
  outcome.again = "install --file " + QuotedWord(options.file);
  outcome.version = install.version();
  return outcome;
}

Outcome RefuseWithdrawn(const Context& context, const AskedStatusHelper& status, const std::string& version) {
  GiveUpDownload(context, status);
  Outcome outcome = EndOfChange(kExitFailed, "failed");
  outcome.problems = ForgetKeptOffer();
  outcome.failure = MakeFailure(FailureReason::kWithdrawn, "the maker has withdrawn " + version,
                                "A newer version is installed when it is on offer.");
  outcome.version = version;
  return outcome;
}

Outcome RunInstall(Context& context) {
  if (std::optional<Outcome> refusal = RefuseWhileHeld(context)) {
    return *std::move(refusal);
  }
  if (!context.options.file.empty()) {
    return RunFileInstall(context);
  }
  const UpdateObjects objects = MakeUpdateObjects();
  const StatusRecord record = ReadStatusIfPossible();
  if (MayInstall(*objects.status) && IsWithdrawnNow(record.new_pack_name, record.new_version)) {
    return RefuseWithdrawn(context, *objects.status, record.new_version);
  }
  return RunAbout(context, objects, record.new_version, InstallFlow());
}

Outcome RunAutomatically(Context& context) {
  const UpdateObjects objects = MakeUpdateObjects();
  const JudgedOffer judged = JudgeOffer(*context.lock, objects);
  switch (judged.step) {
    case OfferStep::kDownload: {
      Outcome outcome = RunAbout(context, objects, judged.version, DownloadFlow());
      outcome.result = outcome.exit == kExitDone ? "downloaded" : outcome.result;
      return outcome;
    }
    case OfferStep::kInstall:
      return RunAbout(context, objects, judged.version, InstallFlow());
    case OfferStep::kUpdate:
      return RunAbout(context, objects, judged.version, UpdateFlow());
    case OfferStep::kFailed:
      return FailedChange("update");
    case OfferStep::kNothing:
    case OfferStep::kWait:
      break;
  }
  return EndWithoutStep(judged);
}

Outcome RunUpdate(Context& context) {
  if (context.options.automatic) {
    return RunAutomatically(context);
  }
  if (std::optional<Outcome> refusal = RefuseWhileHeld(context)) {
    return *std::move(refusal);
  }
  const UpdateObjects objects = ObjectsFor(context);
  const StatusRecord record = ReadStatusIfPossible();
  if (!context.options.reinstall) {
    if (std::optional<Outcome> end = EndWithoutUpdate(objects, record, context.options.older)) {
      return *std::move(end);
    }
  } else {
    objects.handler->AcceptRejected();
  }
  return RunAbout(context, objects, record.new_version, UpdateFlow());
}

/// Tells orba-archive, which judges packages where there is a keyring.
void AllowOlder(bool allowed) {
  if (allowed && setenv("ORBAMIRA_ALLOW_OLDER", "1", 1) != 0) {  // NOLINT(concurrency-mt-unsafe): no thread runs yet
    ThrowErrno("cannot set the environment");
  }
}

}  // namespace

Outcome Download(Context& context) { return RunCancellable(context, &AfterTrial<RunDownload>); }

Outcome Install(Context& context) {
  AllowOlder(context.options.older);
  return RunCancellable(context, &AfterTrial<RunInstall>);
}

Outcome Update(Context& context) {
  AllowOlder(context.options.older);
  return RunCancellable(context, &AfterTrial<RunUpdate>);
}

}  // namespace orbamira::packctl
