#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/cli/command.h"
#include "tools/packctl/host/update_objects.h"
#include "tools/packctl/policy/judged_offer.h"

/// "packctl update --automatic": what is done with a pack on offer that nobody asked for.
namespace orbamira::packctl {

/// What is to be done with it.
enum class OfferStep {
  kNothing,   ///< there is none
  kWait,      ///< not yet
  kDownload,  ///< download it, and let it wait
  kInstall,   ///< install the downloaded one
  kUpdate,    ///< download and install it
  kFailed,    ///< the update server gave no answer
};

/// A pack on offer, judged.
struct JudgedOffer {
  OfferStep step = OfferStep::kNothing;
  std::string version = {};
  OfferNote note = {};
  std::optional<Wait> wait = {};           ///< why it is not installed now
  std::vector<std::string> problems = {};  ///< of the settings, and of keeping the offer
};

/// Judges what the record has on offer. Asks the update server again before anything is done: the offer may have
/// changed since the check. A failed update of the installed version is on offer for as long as the server has it.
JudgedOffer JudgeOffer(const updater::UpdateLock& lock, const UpdateObjects& objects);

/// How a run ends that only waits, or finds nothing to do. The history tells of a reason once, not of every run.
Outcome EndWithoutStep(const JudgedOffer& judged);

/// Whether the downloaded pack is still the one on offer; empty when the update server gives no answer.
std::optional<bool> IsStillOffered(const UpdateObjects& objects, const StatusRecord& record);

/// Keeps what the reply says of the last offer that the handler was asked about; the problem when it cannot be kept.
std::vector<std::string> KeepOffer(const Offer& offer);

/// Keeps why the package of an offer was not accepted, where that offer is kept and the failure is one of the package
/// itself. `offer` is what was asked for; the kept one where its version is empty.
void KeepRefusal(const Offer& offer, const std::string& version, const Failure& failure);

/// Forgets it, as installed or on offer no more; likewise.
std::vector<std::string> ForgetKeptOffer();

/// Refuses what a person asks for while updates are held; empty when they are not, or when that is no matter.
std::optional<Outcome> RefuseWhileHeld(const Context& context);

}  // namespace orbamira::packctl
