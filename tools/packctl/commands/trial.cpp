#include "tools/packctl/commands/trial.h"

#include <exception>
#include <string>

#include "platform/printable.h"
#include "tools/packctl/commands/automatic.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/record/rejection.h"
#include "tools/packctl/view/result_words.h"
#include "updater/health.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

std::optional<std::string> InstalledVersion() {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  return pack ? std::optional(Printable(pack->identity.version)) : std::nullopt;
}

// What became of a pack that was left unchecked; empty when it stays.
std::string EndTrial(const updater::UpdateLock& lock) {
  if (!updater::IsUnchecked()) {
    return "";
  }
  const std::string version = InstalledVersion().value_or("");
  return PassesTrial(lock, MakeUpdateObjects())
             ? ""
             : version + " failed its health check and was taken back. " + StaysSentence(InstalledVersion());
}

void GoBack(const updater::UpdateLock& lock, const UpdateObjects& objects) {
  try {
    updater::RollBack(lock, *objects.status, kRolledBackReason, objects.core);
  } catch (const std::exception&) {
    updater::Recover(lock);
    throw;
  }
  updater::Recover(lock);  // a download that was waiting is not wanted any more
}

Outcome NoPreviousPack() {
  Outcome outcome = EndOfChange(kExitNothingToDo, "nothing_to_do");
  outcome.text = "There is no previous pack.\n";
  return outcome;
}

Outcome RunRollback(Context& context) {
  if (const updater::PackStatus status = ReadStatus().status; IsUnderWay(status)) {
    return ForbiddenChange("go back", status);
  }
  const std::optional<std::string> previous = updater::PreviousVersion();
  const std::optional<std::string> installed = InstalledVersion();
  if (!previous || !installed) {
    return NoPreviousPack();
  }
  const std::string there = Printable(*previous);
  if (!context.options.yes) {
    const std::string what = *installed + " would be rejected, and " + there + " put back";
    if (context.options.json || !context.console.CanAsk()) {
      return NotConfirmed("rollback", what);
    }
    if (!context.console.Confirm("Go back from " + *installed + " to " + there + "?")) {
      return DeclinedChange();
    }
  }
  GoBack(*context.lock, MakeUpdateObjects());
  Outcome outcome = EndOfChange(kExitDone, "done");
  outcome.change->happened = true;
  outcome.version = *installed;
  outcome.text = "Went back to " + there + " (was " + *installed + "). " + *installed +
                 " is not installed again, but a newer version is.\n";
  return outcome;
}

}  // namespace

bool PassesTrial(const updater::UpdateLock& lock, const UpdateObjects& objects) try {
  const bool passes = updater::ConfirmHealth(lock, *objects.status, objects.core);
  if (!passes) {
    ForgetKeptOffer();  // if that fails, the next check does it
  }
  return passes;
} catch (const std::exception&) {
  updater::Recover(lock);
  throw;
}

Outcome AfterTrial(Context& context, Outcome (*run)(Context&)) {
  const std::string taken_back = EndTrial(*context.lock);
  Outcome outcome = run(context);
  if (!taken_back.empty()) {
    outcome.problems.insert(outcome.problems.begin(), taken_back);
    outcome.change = outcome.change.value_or(Change());
    outcome.change->happened = true;
  }
  return outcome;
}

Outcome Rollback(Context& context) { return RunCancellable(context, &RunRollback); }

}  // namespace orbamira::packctl
