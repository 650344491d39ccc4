#include "tools/packctl/policy/offer_note.h"

#include "platform/constants.h"
#include "platform/json/json_object.h"
#include "platform/version.h"
#include "tools/packctl/policy/state_file.h"

namespace orbamira::packctl {
namespace {

// No offer was seen before this program was made.
constexpr std::time_t kYear2026 = 1767225600;

bool IsTrue(const Json::Value& value) { return value.isBool() && value.asBool(); }

std::optional<RefusedPackage> RefusalFromJson(const Json::Value& json) {
  if (!json.isObject() || !json["time"].isInt64()) {
    return std::nullopt;
  }
  return RefusedPackage{
      .message = TextOf(json["message"]), .time = json["time"].asInt64(), .basis = TextOf(json["basis"])};
}

Json::Value RefusalJson(const std::optional<RefusedPackage>& refusal) {
  Json::Value json;
  if (refusal) {
    json["message"] = refusal->message;
    json["time"] = Json::Int64{refusal->time};
    json["basis"] = refusal->basis;
  }
  return json;
}

}  // namespace

OfferNote Noted(const Offer& offer, const std::optional<OfferNote>& before, std::time_t now,
                const std::string& installed) {
  OfferNote note{.offer = offer, .first_seen = now};
  if (!before) {
    return note;
  }
  const bool is_same = before->offer.version == offer.version;
  const bool is_open = installed.empty() || IsNewVersion(installed, before->offer.version);
  const bool is_heir = before->offer.security && is_open && IsNewVersion(before->offer.version, offer.version);
  note.offer.security = offer.security || (before->offer.security && (is_same || is_heir));
  note.told = is_same ? before->told : "";
  note.refusal = HaveSamePackage(offer, before->offer) ? before->refusal : std::nullopt;
  // Of a release that is marked later, the days count from then.
  const bool goes_on = (is_same || is_heir) && before->offer.security == note.offer.security;
  if (goes_on && before->first_seen >= kYear2026 && before->first_seen <= now) {
    note.first_seen = before->first_seen;
  }
  return note;
}

std::optional<OfferNote> ReadOfferNote() {
  const std::optional<Json::Value> kept = ReadStateFile(path::kOfferFile).object;
  if (!kept || !(*kept)["first_seen"].isInt64()) {
    return std::nullopt;
  }
  const Json::Value& json = *kept;
  return OfferNote{.offer = {.version = TextOf(json["version"]),
                             .link = TextOf(json["link"]),
                             .checksum = TextOf(json["checksum"]),
                             .security = IsTrue(json["security"])},
                   .first_seen = json["first_seen"].asInt64(),
                   .told = TextOf(json["told"]),
                   .refusal = RefusalFromJson(json["refusal"])};
}

void KeepOfferNote(const OfferNote& note) {
  if (ReadOfferNote() == note) {
    return;
  }
  Json::Value json;
  json["version"] = note.offer.version;
  json["link"] = note.offer.link;
  json["checksum"] = note.offer.checksum;
  json["security"] = note.offer.security;
  json["first_seen"] = Json::Int64{note.first_seen};
  json["told"] = note.told;
  json["refusal"] = RefusalJson(note.refusal);
  WriteStateFile(path::kOfferFile, json);
}

void ForgetOffer() { RemoveStateFile(path::kOfferFile); }

}  // namespace orbamira::packctl
