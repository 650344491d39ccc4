#include "tools/packctl/policy/judged_offer.h"

#include <ctime>
#include <utility>

#include "tools/packctl/policy/policy_settings.h"
#include "tools/packctl/record/installed_pack.h"

namespace orbamira::packctl {
namespace {

OfferNote NoteOf(const StatusRecord& record, std::time_t now) {
  const std::optional<OfferNote> kept = ReadOfferNote();
  const bool is_kept = kept && kept->offer.version == record.new_version;
  return Noted(is_kept ? kept->offer : Offer{.version = record.new_version}, kept, now, InstalledVersion());
}

}  // namespace

JudgedRecord JudgeRecord(const StatusRecord& record, const std::function<bool()>& is_in_use) {
  if (record.status != updater::kStatusNeedDownload && record.status != updater::kStatusNeedInstall) {
    return {};
  }
  const std::time_t now = std::time(nullptr);
  ReadPolicy policy = ReadPolicySettings();
  JudgedRecord judged{.is_on_offer = true, .note = NoteOf(record, now), .problems = std::move(policy.problems)};
  const std::optional<RefusedPackage>& refusal = judged.note.refusal;
  judged.wait = WhyWait({.offer = judged.note.offer,
                         .first_seen = judged.note.first_seen,
                         .settings = std::move(policy.settings),
                         .refusal = refusal && refusal->basis == JudgementBasis() ? refusal : std::nullopt,
                         .hold = ReadHold(now),
                         .now = now,
                         .is_in_use = is_in_use});
  return judged;
}

std::optional<Wait> WaitOf(const StatusRecord& record) {
  return JudgeRecord(record,
                     [] {
                       const std::optional<OfferNote> note = ReadOfferNote();
                       return note && note->told == CodeOf(FailureReason::kInUse);
                     })
      .wait;
}

}  // namespace orbamira::packctl
