#include <string>
#include <utility>

#include "platform/json/json_values.h"
#include "platform/printable.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/host/codec_report.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/view/local_time.h"
#include "tools/packctl/view/result_words.h"
#include "updater/plugin_notifier.h"

namespace orbamira::packctl {
namespace {

Outcome Failed(std::vector<std::string> problems) {
  return {.exit = kExitFailed, .result = "failed", .problems = std::move(problems)};
}

std::string JoinedOrNone(const std::vector<std::string>& codecs) { return codecs.empty() ? "none" : Joined(codecs); }

}  // namespace

Outcome Info(Context& /*context*/) {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  Outcome outcome{.text = "No codec pack is installed.\n"};
  Json::Value& json = outcome.members;
  json["installed"] = pack.has_value();
  json["package"] = json["version"] = json["updated"] = Json::nullValue;
  if (pack) {
    json["package"] = pack->identity.package;
    json["version"] = pack->identity.version;
    json["updated"] = Json::Int64{pack->updated};
    outcome.text = "Package: " + Printable(pack->identity.package) + "\nVersion: " + Printable(pack->identity.version) +
                   "\nUpdated: " + LocalTime(pack->updated) + "\n";
  }
  return outcome;
}

Outcome Codecs(Context& context) {
  CodecReport codecs = ReadCodecs(context.console);
  if (!codecs.problems.empty()) {
    return Failed(std::move(codecs.problems));
  }
  Outcome outcome;
  outcome.members["installed"] = ListOf(codecs.installed);
  outcome.members["requested"] = ListOf(codecs.requested);
  outcome.text =
      "Installed: " + JoinedOrNone(codecs.installed) + "\nRequested: " + JoinedOrNone(codecs.requested) + "\n";
  return outcome;
}

Outcome Plugins(Context& context) {
  const std::vector<std::string> ids = updater::PluginNotifier::Create()->GetAppId();
  // An empty list with a line in the log is the library's way to say that the list cannot be had.
  Console::Held held = context.console.TakeHeld();
  if (ids.empty() && !held.log.empty()) {
    return Failed(held.Reasons("cannot list the plugins"));
  }
  Outcome outcome{.problems = std::move(held.other)};
  outcome.members["app_ids"] = ListOf(ids);
  for (const std::string& id : ids) {
    outcome.text += Printable(id) + "\n";
  }
  if (ids.empty()) {
    outcome.text = "No plugin is registered.\n";
  }
  return outcome;
}

}  // namespace orbamira::packctl
