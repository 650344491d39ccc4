#include "tools/packctl/web/state_json.h"

#include <cmath>

#include "platform/json/json_values.h"
#include "platform/printable.h"
#include "tools/packctl/record/rejection.h"
#include "tools/packctl/record/support_period.h"
#include "tools/packctl/view/progress_text.h"
#include "tools/packctl/view/wait_words.h"

namespace orbamira::packctl {
namespace {

Json::Value ProgressJson(const StatusRecord& record, const std::optional<double>& rate) {
  const DownloadProgress progress{.now = record.download_size_now, .total = record.download_size_total};
  Json::Value json;
  if (progress.now <= 0 && progress.total <= 0) {
    return json;
  }
  const bool known = progress.total > 0;
  json["now"] = Json::Int64{progress.now};
  json["total"] = known ? Json::Value(Json::Int64{progress.total}) : Json::Value();
  json["percent"] = known ? Json::Value(progress.Percent()) : Json::Value();
  json["rate"] = rate ? Json::Value(Json::Int64{std::llround(*rate)}) : Json::Value();
  return json;
}

Json::Value OfferJson(const std::optional<PackIdentity>& pack) {
  Json::Value offer;
  if (pack) {
    offer["package"] = NullIfEmpty(pack->package);
    offer["version"] = pack->version;
  }
  return offer;
}

void AddRecord(const StatusRecord& record, const std::optional<double>& rate, Json::Value& json) {
  json["status"] = StatusText(record.status);
  json["under_way"] = IsUnderWay(record.status);
  json["step"] = NullIfEmpty(record.install_step);
  json["progress"] = ProgressJson(record, rate);
}

void AddNoRecord(Json::Value& json) {
  for (const char* member : {"status", "step", "progress"}) {
    json[member] = Json::nullValue;
  }
  json["under_way"] = false;
}

Json::Value InstalledJson(const MachineState& state) {
  Json::Value json;
  if (state.installed) {
    json["package"] = state.installed->identity.package;
    json["version"] = state.installed->identity.version;
    json["updated"] = Json::Int64{state.installed->updated};
    json["codecs"] = state.codecs ? ListOf(state.codecs->installed) : Json::Value();
  }
  return json;
}

Json::Value RequestedJson(const CodecReport& codecs) {
  Json::Value json = Json::arrayValue;
  for (const auto& [codec, applications] : codecs.applications) {
    Json::Value& entry = json.append(Json::objectValue);
    entry["codec"] = codec;
    entry["applications"] = ListOf(applications);
  }
  return json;
}

Json::Value RefusalJson(const std::optional<Refusal>& refusal) {
  Json::Value json;
  if (refusal) {
    json["code"] = refusal->code;
    json["message"] = refusal->message;
  }
  return json;
}

Json::Value DiagnosisJson(const Diagnosis& diagnosis) {
  Json::Value json;
  json["time"] = Json::Int64{diagnosis.time};
  json["findings"] = diagnosis.findings;
  return json;
}

Json::Value ActionJson(const WebAction& action) {
  Json::Value json;
  json["command"] = action.command;
  json["running"] = action.running;
  json["exit"] = action.exit ? Json::Value(*action.exit) : Json::Value();
  json["result"] = TextOrNull(action.result);
  json["problems"] = ListOf(action.problems);
  json["error"] = FailureJson(action.failure);
  return json;
}

// The history of old runs holds texts from outside, too.
void MakePrintable(Json::Value& value) {
  if (value.isString()) {
    value = Printable(value.asString());
  }
  for (Json::Value& member : value) {
    MakePrintable(member);
  }
}

}  // namespace

Json::Value StateJson(const MachineState& state) {
  Json::Value json;
  if (state.record) {
    AddRecord(*state.record, state.rate, json);
  } else {
    AddNoRecord(json);
  }
  for (const PageAction& action : PageActions()) {
    json["why_not"][action.name] = RefusalJson(action.why_not(state));
  }
  json["offer"] = OfferJson(OfferedPack(state));
  json["wait"] = WaitJson(state.wait);
  json["hold"] = HoldJson(state.hold);
  json["installed"] = InstalledJson(state);
  json["requested"] = state.codecs ? RequestedJson(*state.codecs) : Json::Value();
  json["checked"] = state.checked ? Json::Value(Json::Int64{state.checked->time}) : Json::Value();
  json["previous_version"] = TextOrNull(state.previous_version);
  json["rejected"] = RejectedJson(state.rejected);
  const OtherReleases others = state.checked ? state.checked->others : OtherReleases();
  json["staged"] = StagedReleaseJson(others.staged);
  json["withdrawn"] = state.installed && state.installed->identity.version == others.withdrawn;
  json["support_until"] = state.support_end ? Json::Value(DayText(*state.support_end)) : Json::Value();
  const std::optional<HistoryEntry> failure = UnmendedFailure(state);
  json["failure"] = failure ? failure->ToJson() : Json::Value();
  json["problems"] = ListOf(state.problems);
  json["at_work"] = state.at_work;
  json["interrupted"] = state.interrupted;
  MakePrintable(json);
  return json;
}

Json::Value PageJson(const PageState& page) {
  Json::Value json = StateJson(page.seen.state);
  json["time"] = Json::Int64{page.seen.time};
  json["tag"] = page.tag;
  json["history_tag"] = page.history_tag;
  json["name"] = page.server.name;
  json["server"]["user"] = page.server.user;
  json["server"]["port_is_held"] = page.server.port_is_held;
  json["action"] = page.action ? ActionJson(*page.action) : Json::Value();
  json["diagnosis"] = page.diagnosis ? DiagnosisJson(*page.diagnosis) : Json::Value();
  json["at_work"] = page.busy.has_value();
  if (page.busy) {
    for (Json::Value& why_not : json["why_not"]) {
      why_not = RefusalJson(page.busy);
    }
  }
  return json;
}

Json::Value HistoryJson(const MachineState& state) {
  Json::Value json;
  json["entries"] = Json::arrayValue;
  for (const HistoryEntry& entry : state.history) {
    json["entries"].append(entry.ToJson());
  }
  MakePrintable(json);
  return json;
}

}  // namespace orbamira::packctl
