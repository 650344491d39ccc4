#include <exception>
#include <functional>
#include <string>

#include "platform/constants.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/commands/watched_work.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/progress_view.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

/// One of the library's three flows.
struct Flow {
  const char* noun;
  bool (*run)(const UpdateObjects& objects);
  const char* success;
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

Outcome RunFlow(Context& context, const Flow& flow) {
  const UpdateObjects objects = MakeUpdateObjects();
  const auto work = [&] { return flow.run(objects); };
  Console& console = context.console;
  const bool done = context.options.json ? RunShown(console, nullptr, work) : RunWithProgress(console, work);
  if (const auto status = objects.status->refused_status()) {
    return ForbiddenChange(flow.noun, *status);
  }
  if (!done) {
    return objects.status->permitted() ? RecoveredChange(context, flow.noun) : FailedChange(flow.noun);
  }
  if (!flow.installs) {
    updater::EndRemovals(*context.lock);
  } else if (!updater::ConfirmInstall(*context.lock, *objects.status)) {
    return RecoveredChange(context, flow.noun);
  }
  Outcome outcome = EndOfChange(kExitDone, "done");
  outcome.text = flow.success;
  outcome.change->happened = true;
  if (!flow.installs) {
    const StatusRecord record = ReadStatus();
    outcome.change->offer = PackIdentity{record.new_pack_name, record.new_version};
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
  if (!MayInstall(status) || objects.packages->Accepts(path::kDownloadedOpkPath)) {
    return objects.manager->Install();
  }
  status.SetAsInstallFailed(status.GetPackNewVersion(), status.GetPackNewName());
  return false;
}

}  // namespace

Outcome Download(Context& context) {
  return RunFlow(context, {"download", [](const UpdateObjects& objects) { return objects.manager->Download(); },
                           "The new pack is downloaded and verified. Install it with \"packctl install\".\n", false});
}

Outcome Install(Context& context) {
  return RunFlow(context, {"install", &InstallWhatIsAccepted, "The new pack is installed.\n", true});
}

Outcome Update(Context& context) {
  return RunFlow(context, {"update", [](const UpdateObjects& objects) { return objects.manager->DownloadAndInstall(); },
                           "The new pack is downloaded and installed.\n", true});
}

}  // namespace orbamira::packctl
