#include <fcntl.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_values.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"
#include "platform/printable.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
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
  return versions.installed ? "installed is " + Printable(*versions.installed) : "no version is installed";
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
  outcome.text = std::string("No update server is named, so there is nobody to ask.\nName it with ") +
                 common::kPackUpdateServer + " in " + path::kPkgSetting + ".\n";
  return WithVersions(std::move(outcome), VersionsWith(std::nullopt));
}

std::string NewPackWords(const updater::PackManager& manager, const Versions& versions) {
  const bool for_aac = updater::ChoosePack(manager).reason == updater::PackReason::kAacRequested;
  const std::string what =
      for_aac ? "A pack with AAC is available, which an application asks for and the installed pack lacks"
              : "A new pack is available";
  return what + ": version " + Printable(*versions.offered) + ", " + InstalledWords(versions) +
         ".\nFetch and install it with \"packctl update\".\n";
}

Outcome NewPack(const updater::PackManager& manager, bool repeats) {
  const Versions versions = VersionsWith(ReadStatus().new_version);
  Outcome outcome = EndOfChange(kExitDone, "new_pack");
  outcome.change->happened = true;
  outcome.change->offer = PackIdentity{.version = *versions.offered};
  outcome.text = repeats ? "The last update failed. Install version " + Printable(*versions.offered) +
                               " again with \"packctl update\".\n"
                         : NewPackWords(manager, versions);
  return WithVersions(std::move(outcome), versions);
}

Outcome NothingNew(const std::string& declined) {
  const Versions versions = VersionsWith(declined);
  Outcome outcome = EndOfChange(kExitNothingToDo, "nothing_new");
  outcome.text = "Nothing new: version " + Printable(declined) + " is offered, " + InstalledWords(versions) + ".\n";
  outcome.problems = DoubtsAbout(outcome.change->status);
  return WithVersions(std::move(outcome), versions);
}

}  // namespace

Outcome Check(Context& context) {
  if (updater::KOSHelper::Create()->GetPackUpdateServerUrl().empty() && !SettingsAreIgnored()) {
    return NobodyToAsk();
  }
  const UpdateObjects objects = MakeUpdateObjects();
  const bool found = objects.manager->CheckNewPack();
  const std::optional<std::string>& declined = objects.handler->declined_version();
  const bool repeats =
      !found && declined && updater::RepeatFailedUpdate(*context.lock, *objects.manager, *objects.status);
  if (found || declined) {
    NoteAnsweredCheck();
  }
  if (found || repeats) {
    return NewPack(*objects.manager, repeats);
  }
  return declined ? NothingNew(*declined) : WithVersions(FailedChange("check"), VersionsWith(std::nullopt));
}

}  // namespace orbamira::packctl
