#include "tools/packctl/commands/automatic.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <exception>
#include <utility>

#include "platform/json/json_values.h"
#include "platform/log.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/policy/judged_offer.h"
#include "tools/packctl/policy/pack_users.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/wait_words.h"
#include "updater/recovery.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

// What the record and the note come to.
JudgedOffer Judge(const StatusRecord& record) {
  JudgedRecord found = JudgeRecord(record, IsPackInUse);
  if (!found.is_on_offer) {
    return {};
  }
  JudgedOffer judged{.version = record.new_version,
                     .note = std::move(found.note),
                     .wait = found.wait,
                     .problems = std::move(found.problems)};
  const bool is_downloaded = record.status == updater::kStatusNeedInstall;
  if (!judged.wait) {
    judged.step = is_downloaded ? OfferStep::kInstall : OfferStep::kUpdate;
  } else {
    judged.step = judged.wait->may_download && !is_downloaded ? OfferStep::kDownload : OfferStep::kWait;
  }
  return judged;
}

// Whether there is still work, as the update server says now; the record is brought up to that.
bool RefreshRecord(const updater::UpdateLock& lock, const UpdateObjects& objects, const StatusRecord& record) {
  const bool is_downloaded = record.status == updater::kStatusNeedInstall;
  const std::optional<bool> is_same = is_downloaded ? IsStillOffered(objects, record) : false;
  if (!is_same) {
    return true;  // without an answer the downloaded pack is what there is
  }
  const auto& declined = objects.handler->declined_version();
  const auto is_repetition = [&] {
    return declined && !objects.handler->rejected_version() &&
           updater::RepeatFailedUpdate(lock, *objects.manager, *objects.status);
  };
  if (*is_same || objects.manager->CheckNewPack() || is_repetition()) {
    KeepOffer(objects.handler->offer());
    return true;
  }
  if (declined) {
    ForgetKeptOffer();
  }
  return false;
}

// Whether the package would be refused again: it is another one than it should be. What may lie with the machine, such
// as a clock or a disk, is none of these.
bool IsOfThePackage(const Failure& failure) {
  using enum FailureReason;
  constexpr std::array kRefusals = {kNotSigned,    kBadSignature, kManifestTooOld, kManifestTooNew, kWrongProduct,
                                    kInfoMismatch, kOlderVersion, kBelowMinimum,   kPackageExpired, kNotAsOffered};
  return std::ranges::any_of(kRefusals, [&](FailureReason reason) { return failure.code == CodeOf(reason); });
}

}  // namespace

JudgedOffer JudgeOffer(const updater::UpdateLock& lock, const UpdateObjects& objects) {
  const StatusRecord record = ReadStatus();
  JudgedOffer judged = Judge(record);
  if (judged.step != OfferStep::kNothing && judged.step != OfferStep::kWait) {
    if (RefreshRecord(lock, objects, record)) {
      judged = Judge(ReadStatus());
    } else {
      judged.step = objects.handler->declined_version() ? OfferStep::kNothing : OfferStep::kFailed;
    }
  }
  GiveUpLookingIntoProcesses();
  return judged;
}

Outcome EndWithoutStep(const JudgedOffer& judged) {
  Outcome outcome = EndOfChange(kExitNothingToDo, judged.wait ? "waits" : "nothing_to_do");
  outcome.problems = judged.problems;
  outcome.members["version"] = NullIfEmpty(judged.version);
  outcome.members["wait"] = WaitJson(judged.wait);
  if (!judged.wait) {
    outcome.text = "Nothing waits to be installed.\n";
    return outcome;
  }
  outcome.version = judged.version;
  outcome.failure = ExplainWait(judged.version, *judged.wait);
  try {
    OfferNote note = judged.note;
    outcome.change->happened = note.told != outcome.failure->code;
    note.told = outcome.failure->code;
    KeepOfferNote(note);
  } catch (const std::exception& error) {
    outcome.change->happened = false;  // it would be told with every run
    outcome.problems.emplace_back(error.what());
  }
  return outcome;
}

std::optional<bool> IsStillOffered(const UpdateObjects& objects, const StatusRecord& record) {
  Json::Value offer;
  const bool with_aac = updater::ChoosePack(*objects.manager).with_aac;
  if (!objects.manager->FetchDownloadInfo(with_aac, offer)) {
    return std::nullopt;
  }
  return objects.handler->GetDownloadVersion(offer) == record.new_version &&
         updater::PackName(with_aac) == record.new_pack_name;
}

std::vector<std::string> KeepOffer(const Offer& offer) try {
  KeepOfferNote(Noted(offer, ReadOfferNote(), std::time(nullptr), InstalledVersion()));
  return {};
} catch (const std::exception& error) {
  return {std::string("cannot keep since when the pack is on offer: ") + error.what()};
}

void KeepRefusal(const Offer& offer, const std::string& version, const Failure& failure) try {
  const std::optional<OfferNote> kept = ReadOfferNote();
  if (!kept || kept->offer.version != version || !IsOfThePackage(failure)) {
    return;
  }
  const std::time_t now = std::time(nullptr);
  OfferNote note = offer.version.empty() ? *kept : Noted(offer, kept, now, InstalledVersion());
  note.refusal = {.message = failure.message, .time = now, .basis = JudgementBasis()};
  KeepOfferNote(note);
} catch (const std::exception& error) {
  ORBAMIRA_LOG_ERROR("Failed to keep why the package was refused: %s", error.what());
}

std::vector<std::string> ForgetKeptOffer() try {
  ForgetOffer();
  return {};
} catch (const std::exception& error) {
  return {error.what()};
}

std::optional<Outcome> RefuseWhileHeld(const Context& context) {
  const std::optional<Hold> hold = ReadHold(std::time(nullptr));
  if (!hold || context.options.despite_hold) {
    return std::nullopt;
  }
  Outcome outcome = EndOfChange(kExitNotPermitted, "not_permitted");
  outcome.failure = MakeFailure(FailureReason::kHeld, HoldWords(*hold),
                                "Run: sudo packctl unhold, or add --despite-hold to install all the same");
  return outcome;
}

}  // namespace orbamira::packctl
