#include <string>

#include "platform/constants.h"
#include "platform/json/json_values.h"
#include "platform/printable.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/result_words.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
Outcome Remove(Context& context) {
  constexpr const char* kNoun = "removal";
  if (const updater::PackStatus status = ReadStatus().status; IsUnderWay(status)) {
    return ForbiddenChange("remove", status);
  }
  if (!updater::KOSHelper::Create()->DirExist(path::kPackFolderPath)) {
    Outcome outcome = EndOfChange(kExitNothingToDo, "nothing_to_do");
    outcome.text = "No codec pack is installed.\n";
    return outcome;
  }
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  const std::string version = pack ? pack->identity.version : "what was left of a pack";
  if (!MakeUpdateObjects().manager->RemovePack()) {
    return RecoveredChange(context, kNoun);
  }
  Outcome outcome = EndOfChange(kExitDone, "done");
  outcome.change->happened = true;
  outcome.text = "Removed " + Printable(version) + ". " + StaysSentence(std::nullopt) + "\n";
  return outcome;
}

Outcome RunRecovery(Context& context) {
  const updater::RecoveryReport report = updater::Recover(*context.lock);
  const bool whole = report.failed.empty();
  Outcome outcome = EndOfChange(whole ? kExitDone : kExitFailed, whole ? "done" : "failed");
  outcome.change->happened = !report.done.empty();
  outcome.members["actions"] = ListOf(report.done);
  outcome.members["failures"] = ListOf(report.failed);
  for (const std::string& action : report.done) {
    outcome.text += Capitalized(Printable(action)) + ".\n";
  }
  if (!whole) {
    outcome.problems = report.failed;
    return outcome;
  }
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  outcome.text += "Everything is in order. " +
                  (pack ? Printable(pack->identity.version) + " is installed." : StaysSentence(std::nullopt)) + "\n";
  return outcome;
}

}  // namespace orbamira::packctl
