#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/json/json_values.h"
#include "platform/printable.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/host/codec_report.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/result_words.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

// A codec's name in a sentence.
std::string Uppercase(std::string codec) {
  std::ranges::transform(codec, codec.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return codec;
}

// "HEVC is needed by com.example.player"; empty when nobody needs what the pack has.
std::string NeedsOfApplications(Console& console) {
  const CodecReport codecs = ReadCodecs(console);
  if (!codecs.problems.empty()) {
    return "it is not known which codecs applications need";
  }
  std::string needs;
  for (const std::string& codec : codecs.requested) {
    if (std::ranges::find(codecs.installed, codec) == codecs.installed.end()) {
      continue;
    }
    const auto names = codecs.applications.find(codec);
    const bool is_known = names != codecs.applications.end() && !names->second.empty();
    needs += (needs.empty() ? "" : ", ") + Uppercase(codec) + " is needed by " +
             (is_known ? Printable(Joined(names->second)) : "an application");
  }
  return needs;
}

Outcome RunRemoval(Context& context) {
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
  if (const std::string needs = context.options.yes ? "" : NeedsOfApplications(context.console); !needs.empty()) {
    if (context.options.json || !context.console.CanAsk()) {
      return NotConfirmed("remove", needs);
    }
    if (!context.console.Confirm(Capitalized(needs) + ". Remove " + Printable(version) + "?")) {
      return DeclinedChange();
    }
  }
  if (!MakeUpdateObjects().manager->RemovePack()) {
    return RecoveredChange(context, kNoun);
  }
  Outcome outcome = EndOfChange(kExitDone, "done");
  outcome.change->happened = true;
  outcome.text = "Removed " + Printable(version) + ". " + StaysSentence(std::nullopt) + "\n";
  return outcome;
}

}  // namespace

Outcome Remove(Context& context) { return RunCancellable(context, &RunRemoval); }

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
