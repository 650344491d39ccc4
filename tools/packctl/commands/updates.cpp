#include <memory>
#include <stdexcept>
#include <utility>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "platform/posix/files.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/host/checking_pack_handler.h"
#include "tools/packctl/commands/watched_work.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/host/asked_status_helper.h"
#include "tools/packctl/view/progress_view.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/status_words.h"
#include "updater/pack_manager.h"
#include "updater/package_judge.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

/// The library's objects, put together as PackManager::Create() does it, with package services that also judge the
/// signature, a handler that remembers its offers and a status helper that remembers its permissions.
struct Updater {
  std::shared_ptr<updater::PackageJudge> packages;
  std::shared_ptr<AskedStatusHelper> status;
  std::shared_ptr<CheckingPackHandler> handler;
  std::unique_ptr<updater::PackManager> manager;
};

/// Under the lock: what opens the store may set a broken file aside, and must not take one away that is being saved.
std::shared_ptr<store::IKeyValueStore> OpenStore() {
  const store::FileLock lock(path::kPackStatusLock);
  return store::FileKeyValueStore::Create(path::kPackStatusFile);
}

Updater MakeUpdater() {
  std::shared_ptr<updater::IKOSHelper> facts = updater::KOSHelper::Create();
  std::shared_ptr<store::IKeyValueStore> store = OpenStore();
  if (store == nullptr) {
    throw std::runtime_error(std::string("cannot use the status store ") + path::kPackStatusFile);
  }
  auto status = std::make_shared<AskedStatusHelper>(std::move(store));
  const auto core = std::make_shared<wrapper::OrbaCoreWrapper>();
  auto handler = std::make_shared<CheckingPackHandler>(wrapper::CprSession::Create(), facts, core,
                                                       std::make_shared<wrapper::OrbaSDKWrapper>());
  auto packages = std::make_shared<updater::PackageJudge>(core, std::make_shared<wrapper::OrbaPkgWrapper>());
  auto manager =
      std::make_unique<updater::PackManager>(core, packages, facts, status, handler, updater::PluginNotifier::Create());
  return {std::move(packages), std::move(status), std::move(handler), std::move(manager)};
}

/// One of the three flows.
struct Flow {
  const char* command;
  const char* noun;
  bool (*run)(const Updater& updater);
  const char* success;
  bool installs;  ///< a pack is in place when it succeeded
};

Outcome Answer(ExitStatus exit, const char* command, const char* result) {
  Outcome outcome{.exit = exit};
  outcome.json["command"] = command;
  outcome.json["result"] = result;
  return outcome;
}

/// As above, with the recorded status; null when that cannot be read.
Outcome AnswerWithStatus(ExitStatus exit, const char* command, const char* result) {
  Outcome outcome = Answer(exit, command, result);
  try {
    outcome.json["status"] = StatusText(ReadStatus().status);
  } catch (const std::exception&) {
    outcome.json["status"] = Json::nullValue;
  }
  return outcome;
}

constexpr const char* kRecoverHint = "if no program is at work on it, run \"packctl recover\"";

/// Whether an interrupted program may have left this status, the text or null of an answer. Only the user knows whether
/// another program using the library is at work: this one holds no lock against those.
bool MayNeedRecovery(const Json::Value& status) {
  return status.isNull() || IsUnderWay(updater::PackStatusFromText(status.asString()));
}

std::string StatusSentence(const Json::Value& status) {
  const std::string sentence =
      status.isNull() ? "the recorded status cannot be read" : "the recorded status is " + status.asString();
  return MayNeedRecovery(status) ? sentence + "; " + kRecoverHint : sentence;
}

Outcome Failed(const char* command, const char* noun) {
  Outcome outcome = AnswerWithStatus(kExitFailed, command, "failed");
  outcome.problems = {std::string("the ") + noun + " failed; " + StatusSentence(outcome.json["status"])};
  return outcome;
}

/// A change that failed after it had begun: puts in order what it left, and says where that leaves the machine.
Outcome FailedChange(const Context& context, const char* command, const char* noun) {
  updater::Recover(*context.lock);
  return Failed(command, noun);
}

void Show(ProgressView& view) {
  try {
    view.Show(ReadStatus(), ProgressView::Clock::now());
  } catch (const std::exception&) {
    // A record that cannot be read costs one update of the display; the result comes from the work itself.
    return;
  }
}

/// Meanwhile tells what plugins print as they print it, and shows the progress where there is a view.
bool RunShown(Console& console, ProgressView* view, const std::function<bool()>& work) {
  const auto look = [&console, view] {
    const std::vector<std::string> lines = console.TakeOther();
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

bool RunWithProgress(Console& console, const std::function<bool()>& work) {
  const auto view = MakeProgressView(
      console.IsTerminal(), [&console](std::string_view text) { console.Print(text); },
      [&console] { return console.Columns(); });
  const bool done = RunShown(console, view.get(), work);
  view->Finish();
  return done;
}

Outcome NotPermitted(const char* command, const char* noun, updater::PackStatus status) {
  Outcome outcome = Answer(kExitNotPermitted, command, "not_permitted");
  outcome.json["status"] = StatusText(status);
  outcome.problems.push_back(std::string("the ") + noun + " is not permitted while the recorded status is " +
                             StatusText(status) + " (" + StatusMeaning(status) + ")");
  outcome.problems.push_back(IsUnderWay(status) ? kRecoverHint : "permitted now: " + PermittedCommands(status));
  return outcome;
}

Outcome RunFlow(Context& context, const Flow& flow) {
  const Updater updater = MakeUpdater();
  const auto work = [&] { return flow.run(updater); };
  Console& console = context.console;
  const bool done = context.options.json ? RunShown(console, nullptr, work) : RunWithProgress(console, work);
  if (const auto status = updater.status->refused_status()) {
    return NotPermitted(flow.command, flow.noun, *status);
  }
  if (!done) {
    return updater.status->permitted() ? FailedChange(context, flow.command, flow.noun)
                                       : Failed(flow.command, flow.noun);
  }
  if (!flow.installs) {
    updater::EndRemovals(*context.lock);
  } else if (!updater::ConfirmInstall(*context.lock, *updater.status)) {
    return FailedChange(context, flow.command, flow.noun);
  }
  Outcome outcome = AnswerWithStatus(kExitDone, flow.command, "done");
  outcome.text = flow.success;
  outcome.changed = true;
  if (!flow.installs) {
    const StatusRecord record = ReadStatus();
    outcome.offer = PackIdentity{record.new_pack_name, record.new_version};
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
bool InstallWhatIsAccepted(const Updater& updater) {
  AskedStatusHelper& status = *updater.status;
  if (!MayInstall(status) || updater.packages->Accepts(path::kDownloadedOpkPath)) {
    return updater.manager->Install();
  }
  status.SetAsInstallFailed(status.GetPackNewVersion(), status.GetPackNewName());
  return false;
}

Json::Value InstalledVersion() {
  const std::string version = updater::KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath);
  return version.empty() ? Json::Value() : Json::Value(version);
}

std::string Installed(const Json::Value& version) {
  return version.isNull() ? "no version is installed" : "installed is " + tools::Printable(version.asString());
}

std::string WhatIsNew(const updater::IPackManager& manager, bool repeats, const std::string& version,
                      const std::string& installed) {
  const std::string shown = tools::Printable(version);
  if (repeats) {
    return "The last update failed. Install version " + shown + " again with \"packctl update\".\n";
  }
  const std::string what =
      manager.IsAacNeeded() ? "A pack with AAC is available, which an application asks for and the installed pack lacks"
                            : "A new pack is available";
  return what + ": version " + shown + ", " + installed + ".\nFetch and install it with \"packctl update\".\n";
}

Outcome NobodyToAsk() {
  Outcome outcome = AnswerWithStatus(kExitNothingToDo, "check", "no_address");
  outcome.json["version"] = Json::nullValue;
  outcome.json["installed_version"] = InstalledVersion();
  outcome.text = std::string("No update server is named, so there is nobody to ask.\nName it with ") +
                 common::kPackUpdateServer + " in " + path::kPkgSetting + ".\n";
  return outcome;
}

}  // namespace

Outcome Check(Context& context) {
  if (updater::KOSHelper::Create()->GetPackUpdateServerUrl().empty()) {
    return NobodyToAsk();
  }
  const Updater updater = MakeUpdater();
  const bool found = updater.manager->CheckNewPack();
  const std::optional<std::string>& declined = updater.handler->declined_version();
  const Json::Value installed_version = InstalledVersion();
  const std::string installed = Installed(installed_version);
  Outcome outcome;
  const bool repeats =
      !found && declined && updater::RepeatFailedUpdate(*context.lock, *updater.manager, *updater.status);
  if (found || repeats) {
    const std::string version = ReadStatus().new_version;
    outcome = AnswerWithStatus(kExitDone, "check", "new_pack");
    outcome.json["version"] = version;
    outcome.changed = true;
    outcome.offer = PackIdentity{.version = version};
    outcome.text = WhatIsNew(*updater.manager, repeats, version, installed);
  } else if (declined) {
    outcome = AnswerWithStatus(kExitNothingToDo, "check", "nothing_new");
    outcome.json["version"] = *declined;
    outcome.text = "Nothing new: version " + tools::Printable(*declined) + " is offered, " + installed + ".\n";
    if (const Json::Value& status = outcome.json["status"]; MayNeedRecovery(status)) {
      outcome.problems = {StatusSentence(status)};
    }
  } else {
    outcome = Failed("check", "check");
    outcome.json["version"] = Json::nullValue;
  }
  if (found || declined) {
    NoteAnsweredCheck();
  }
  outcome.json["installed_version"] = installed_version;
  return outcome;
}

Outcome Download(Context& context) {
  return RunFlow(context, {"download", "download", [](const Updater& updater) { return updater.manager->Download(); },
                           "The new pack is downloaded and verified. Install it with \"packctl install\".\n", false});
}

Outcome Install(Context& context) {
  return RunFlow(context, {"install", "install", &InstallWhatIsAccepted, "The new pack is installed.\n", true});
}

Outcome Update(Context& context) {
  return RunFlow(context,
                 {"update", "update", [](const Updater& updater) { return updater.manager->DownloadAndInstall(); },
                  "The new pack is downloaded and installed.\n", true});
}

Outcome Remove(Context& context) {
  if (const updater::PackStatus status = ReadStatus().status; IsUnderWay(status)) {
    return NotPermitted("remove", "removal", status);
  }
  if (!updater::KOSHelper::Create()->DirExist(path::kPackFolderPath)) {
    Outcome outcome = AnswerWithStatus(kExitNothingToDo, "remove", "nothing_to_do");
    outcome.text = "No codec pack is installed.\n";
    return outcome;
  }
  const Updater updater = MakeUpdater();
  if (!updater.manager->RemovePack()) {
    return FailedChange(context, "remove", "removal");
  }
  Outcome outcome = AnswerWithStatus(kExitDone, "remove", "done");
  outcome.changed = true;
  outcome.text = "The codec pack is removed.\n";
  return outcome;
}

Outcome RunRecovery(Context& context) {
  const updater::RecoveryReport report = updater::Recover(*context.lock);
  const bool whole = report.failed.empty();
  Outcome outcome = AnswerWithStatus(whole ? kExitDone : kExitFailed, "recover", whole ? "done" : "failed");
  outcome.changed = !report.done.empty();
  Json::Value& actions = outcome.json["actions"] = Json::arrayValue;
  for (const std::string& action : report.done) {
    actions.append(action);
    outcome.text += tools::Printable(action) + "\n";
  }
  Json::Value& failures = outcome.json["failures"] = Json::arrayValue;
  for (const std::string& failure : report.failed) {
    failures.append(failure);
  }
  if (!whole) {
    outcome.problems = {"not everything could be put in order"};
  } else if (report.done.empty()) {
    outcome.text = "Everything is in order.\n";
  }
  return outcome;
}

}  // namespace orbamira::packctl
