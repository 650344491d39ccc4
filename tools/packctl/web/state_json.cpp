#include "tools/packctl/web/state_json.h"

#include <array>

#include "platform/json/json_values.h"
#include "platform/printable.h"
#include "tools/packctl/view/progress_text.h"
#include "tools/packctl/view/status_words.h"

namespace orbamira::packctl {
namespace {

// In the order in which an update takes them.
constexpr std::array kSteps = {"pre_uninstall", "uninstall", "post_uninstall",
                               "pre_install",   "install",   "post_install"};

Json::Value ProgressJson(const StatusRecord& record) {
  const DownloadProgress progress{.now = record.download_size_now, .total = record.download_size_total};
  Json::Value json;
  if (progress.now <= 0 && progress.total <= 0) {
    return json;
  }
  const bool known = progress.total > 0;
  json["now"] = Json::Int64{progress.now};
  json["total"] = known ? Json::Value(Json::Int64{progress.total}) : Json::Value();
  json["percent"] = known ? Json::Value(progress.Percent()) : Json::Value();
  json["text"] = FormatProgress(progress);
  return json;
}

Json::Value StepsJson() {
  Json::Value steps = Json::arrayValue;
  for (const char* step : kSteps) {
    Json::Value& entry = steps.append(Json::objectValue);
    entry["step"] = step;
    entry["words"] = StepWords(step);
  }
  return steps;
}

Json::Value OfferJson(const StatusRecord& record) {
  Json::Value offer;
  if (!record.new_version.empty()) {
    offer["package"] = NullIfEmpty(record.new_pack_name);
    offer["version"] = record.new_version;
  }
  return offer;
}

void AddRecord(const StatusRecord& record, Json::Value& json) {
  json["status"] = StatusText(record.status);
  json["meaning"] = StatusMeaning(record.status);
  json["under_way"] = IsUnderWay(record.status);
  json["step"] = NullIfEmpty(record.install_step);
  json["progress"] = ProgressJson(record);
  json["offer"] = OfferJson(record);
}

void AddNoRecord(Json::Value& json) {
  for (const char* member : {"status", "step", "progress", "offer"}) {
    json[member] = Json::nullValue;
  }
  json["meaning"] = "the record cannot be read";
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

Json::Value HistoryJson(const std::vector<HistoryEntry>& entries) {
  Json::Value json = Json::arrayValue;
  for (const HistoryEntry& entry : entries) {
    json.append(entry.ToJson());
  }
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
    AddRecord(*state.record, json);
  } else {
    AddNoRecord(json);
  }
  json["why_no_update"] = NullIfEmpty(WhyNoUpdate(state));
  json["steps"] = StepsJson();
  json["installed"] = InstalledJson(state);
  json["requested"] = state.codecs ? ListOf(state.codecs->requested) : Json::Value();
  json["history"] = HistoryJson(state.history);
  json["problems"] = ListOf(state.problems);
  json["at_work"] = state.at_work;
  MakePrintable(json);
  return json;
}

Json::Value PageJson(const PageState& page) {
  Json::Value json = StateJson(page.seen.state);
  json["time"] = Json::Int64{page.seen.time};
  json["tag"] = page.tag;
  json["server"]["user"] = page.server.user;
  json["server"]["port_is_held"] = page.server.port_is_held;
  json["action"] = page.action ? ActionJson(*page.action) : Json::Value();
  json["at_work"] = !page.busy.empty();
  for (const char* action : {"check", "update"}) {
    Json::Value& why_not = json[std::string("why_no_") + action];
    if (!page.busy.empty()) {
      why_not = page.busy;
    }
    json[std::string("may_") + action] = why_not.isNull();
  }
  return json;
}

}  // namespace orbamira::packctl
