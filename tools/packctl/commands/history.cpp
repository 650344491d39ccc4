#include "tools/packctl/record/history.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "platform/printable.h"
#include "tools/packctl/cli/pager.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/view/local_time.h"
#include "tools/packctl/view/progress_text.h"

namespace orbamira::packctl {
namespace {

std::string PackWords(const std::optional<PackIdentity>& pack) {
  if (!pack) {
    return "no pack";
  }
  const std::string name = pack->package.empty() ? "" : pack->package + " ";
  return Printable(name + (pack->version.empty() ? "of unknown version" : pack->version));
}

std::string HistoryLines(const HistoryEntry& entry) {
  std::string lines = LocalTime(entry.time) + "  " + Printable(entry.command + ": " + entry.result) + ", " +
                      PackWords(entry.from) + " -> " + PackWords(entry.to) + ", " +
                      FormatDuration(std::chrono::seconds(entry.duration_ms / 1000)) + "\n";
  for (const std::string& error : entry.errors) {
    lines += "    " + Printable(error) + "\n";
  }
  return lines;
}

}  // namespace

Outcome ShowHistory(Context& context) {
  const History history = ReadHistory();
  const std::size_t shown = std::min(history.entries.size(), context.options.limit);
  const std::size_t older = history.entries.size() - shown;
  Outcome outcome{.problems = history.Problems()};
  Json::Value& entries = outcome.members["entries"] = Json::arrayValue;
  for (auto entry = history.entries.rbegin(); entry != history.entries.rend() - static_cast<std::ptrdiff_t>(older);
       ++entry) {
    entries.append(entry->ToJson());
    outcome.text += HistoryLines(*entry);
  }
  outcome.members["older"] = Json::UInt64{older};
  outcome.members["damaged"] = Json::UInt64{history.damaged};
  if (history.entries.empty()) {
    outcome.text = "Nothing was done yet.\n";
  } else if (older > 0) {
    outcome.text +=
        std::to_string(older) + " older. Run: packctl history --limit " + std::to_string(history.entries.size()) + "\n";
  }
  if (!context.options.json && !context.options.no_pager && ShowInPager(context.console, outcome.text)) {
    outcome.text.clear();
  }
  return outcome;
}

}  // namespace orbamira::packctl
