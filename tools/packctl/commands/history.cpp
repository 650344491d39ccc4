#include "tools/packctl/record/history.h"

#include <algorithm>
#include <string>

#include "tools/packctl/cli/pager.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/view/history_text.h"

namespace orbamira::packctl {
Outcome ShowHistory(Context& context) {
  const History history = ReadHistory();
  const std::size_t shown = std::min(history.entries.size(), context.options.limit);
  const std::size_t older = history.entries.size() - shown;
  Outcome outcome{.problems = history.Problems()};
  Json::Value& entries = outcome.members["entries"] = Json::arrayValue;
  for (auto entry = history.entries.rbegin(); entry != history.entries.rend() - static_cast<std::ptrdiff_t>(older);
       ++entry) {
    entries.append(entry->ToJson());
    outcome.text += HistoryText(*entry, context.options.verbose);
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
