#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/commands/watch.h"
#include "tools/packctl/view/local_time.h"
#include "tools/packctl/view/progress_text.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/status_words.h"
#include "updater/kos_helper.h"
#include "updater/pack_manager.h"
#include "updater/plugin_notifier.h"

namespace orbamira::packctl {
namespace {

// HEVC's name in the codec-requirements file, beside kAac.
constexpr const char* kHevc = "hevc";

std::unique_ptr<updater::IPackManager> MakeManager() {
  auto manager = updater::PackManager::Create();
  if (manager == nullptr) {
    throw std::runtime_error("cannot use the updater");
  }
  return manager;
}

Outcome Failed(const char* command, Console::Held held, const std::string& problem) {
  Outcome outcome{.exit = kExitFailed, .problems = std::move(held.other)};
  outcome.json["command"] = command;
  outcome.json["result"] = "failed";
  outcome.problems.insert(outcome.problems.end(), held.log.begin(), held.log.end());
  outcome.problems.push_back(problem);
  return outcome;
}

std::string Joined(const Json::Value& texts) {
  std::string joined;
  for (const Json::Value& text : texts) {
    joined += (joined.empty() ? "" : ", ") + text.asString();
  }
  return joined.empty() ? "none" : joined;
}

std::string InstalledWords() {
  const auto facts = updater::KOSHelper::Create();
  if (!facts->FileExist(path::kPackInfoPath)) {
    return "no codec pack";
  }
  return tools::Printable(facts->GetPackageNameFromPath(path::kPackInfoPath) + " " +
                          facts->GetVersionFromPath(path::kPackInfoPath));
}

/// What is installed comes first: the record only tells how the last work on it went.
std::string StatusLines(const StatusRecord& record) {
  std::string text = "Installed: " + InstalledWords() + "\n" + "Status:    " + StatusText(record.status) + " (" +
                     StatusMeaning(record.status) + ")\n";
  if (!record.new_version.empty()) {
    const std::string name = record.new_pack_name.empty() ? "" : record.new_pack_name + " ";
    text += "New pack:  " + tools::Printable(name + record.new_version) + "\n";
  }
  if (record.download_size_now > 0 || record.download_size_total > 0) {
    const DownloadProgress progress{record.download_size_now, record.download_size_total};
    text += "Download:  " + FormatBytes(progress.now);
    if (progress.total > 0) {
      text += " of " + FormatBytes(progress.total) + " (" + std::to_string(progress.Percent()) + " %)";
    }
    text += "\n";
  }
  if (!record.install_step.empty()) {
    text += std::string("Step:      ") + StepWords(record.install_step) + "\n";
  }
  return text + "Permitted: " + PermittedCommands(record.status) + "\n";
}

std::string PackWords(const std::optional<PackIdentity>& pack) {
  if (!pack) {
    return "no pack";
  }
  const std::string name = pack->package.empty() ? "" : pack->package + " ";
  return tools::Printable(name + (pack->version.empty() ? "of unknown version" : pack->version));
}

std::string HistoryLines(const HistoryEntry& entry) {
  std::string lines = LocalTime(entry.time) + "  " + tools::Printable(entry.command + ": " + entry.result) + ", " +
                      PackWords(entry.from) + " -> " + PackWords(entry.to) + ", " +
                      FormatDuration(std::chrono::seconds(entry.duration_ms / 1000)) + "\n";
  for (const std::string& error : entry.errors) {
    lines += "    " + tools::Printable(error) + "\n";
  }
  return lines;
}

}  // namespace

Outcome Status(Context& context) {
  if (context.options.watch) {
    return WatchStatus(context);
  }
  const StatusRecord record = ReadStatus();
  return {.json = StatusJson(record), .text = StatusLines(record)};
}

Outcome Info(Context& /*context*/) {
  const auto manager = MakeManager();
  Outcome outcome;
  Json::Value& json = outcome.json;
  json["installed"] = manager->CheckPackExists();
  json["package"] = json["version"] = json["updated"] = Json::nullValue;
  if (!manager->CheckPackExists()) {
    outcome.text = "No codec pack is installed.\n";
    return outcome;
  }
  const auto facts = updater::KOSHelper::Create();
  const std::string package = facts->GetPackageNameFromPath(path::kPackInfoPath);
  const std::string version = facts->GetVersionFromPath(path::kPackInfoPath);
  const long updated = manager->GetPackLastUpdateTime();
  json["package"] = package;
  json["version"] = version;
  json["updated"] = Json::Int64{updated};
  outcome.text = "Package: " + tools::Printable(package) + "\nVersion: " + tools::Printable(version) +
                 "\nUpdated: " + LocalTime(updated) + "\n";
  return outcome;
}

Outcome Codecs(Context& context) {
  const auto manager = MakeManager();
  context.console.TakeHeld();
  Outcome outcome;
  Json::Value& installed = outcome.json["installed"] = Json::arrayValue;
  Json::Value& requested = outcome.json["requested"] = Json::arrayValue;
  if (manager->HasHevcCurrently()) {
    installed.append(kHevc);
  }
  if (manager->HasAacCurrently()) {
    installed.append(kAac);
  }
  for (const char* codec : {kHevc, kAac}) {
    if (manager->IsCodecRequested(codec)) {
      requested.append(codec);
    }
  }
  // The library takes a requirements file that it cannot read for one without requests, and says so only in the log.
  if (Console::Held held = context.console.TakeHeld(); !held.log.empty()) {
    return Failed("codecs", std::move(held), "cannot tell which codecs applications ask for");
  }
  outcome.text = "Installed: " + Joined(installed) + "\nRequested: " + Joined(requested) + "\n";
  return outcome;
}

Outcome ShowHistory(Context& context) {
  const History history = ReadHistory();
  const std::size_t shown = std::min(history.entries.size(), context.options.limit.value_or(history.entries.size()));
  Outcome outcome;
  Json::Value& entries = outcome.json["entries"] = Json::arrayValue;
  for (auto entry = history.entries.end() - static_cast<std::ptrdiff_t>(shown); entry != history.entries.end();
       ++entry) {
    entries.append(entry->ToJson());
    outcome.text += HistoryLines(*entry);
  }
  outcome.json["damaged"] = Json::UInt64{history.damaged};
  if (history.entries.empty()) {
    outcome.text = "Nothing was done yet.\n";
  }
  if (history.damaged > 0) {
    outcome.problems = {"unreadable lines in the history, passed over: " + std::to_string(history.damaged)};
  }
  return outcome;
}

Outcome Plugins(Context& context) {
  const std::vector<std::string> ids = updater::PluginNotifier::Create()->GetAppId();
  // An empty list with a line in the log is the library's way to say that the list cannot be had.
  Console::Held held = context.console.TakeHeld();
  if (ids.empty() && !held.log.empty()) {
    return Failed("plugins", std::move(held), "cannot list the plugins");
  }
  Outcome outcome{.problems = std::move(held.other)};
  Json::Value& app_ids = outcome.json["app_ids"] = Json::arrayValue;
  for (const std::string& id : ids) {
    app_ids.append(id);
    outcome.text += tools::Printable(id) + "\n";
  }
  if (ids.empty()) {
    outcome.text = "No plugin is registered.\n";
  }
  return outcome;
}

}  // namespace orbamira::packctl
