#include "tools/packctl/policy/hold.h"

#include <ctime>
#include <stdexcept>

#include "platform/json/json_values.h"
#include "tools/packctl/commands/change_outcome.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/view/result_words.h"
#include "tools/packctl/view/wait_words.h"

namespace orbamira::packctl {
namespace {

Hold WantedHold(const std::string& until) {
  if (until.empty()) {
    return {};
  }
  const std::optional<std::time_t> end = ParseDate(until);
  if (!end) {
    throw std::runtime_error("--until takes a date such as 2026-12-24 or \"2026-12-24 18:30\", not " + until);
  }
  if (*end <= std::time(nullptr)) {
    throw std::runtime_error("--until " + until + " is in the past");
  }
  return {.until = end};
}

}  // namespace

Outcome HoldUpdates(Context& context) {
  const Hold hold = WantedHold(context.options.until);
  const bool is_new = ReadHold(std::time(nullptr)) != hold;
  if (is_new) {
    KeepHold(hold);
  }
  Outcome outcome = EndOfChange(is_new ? kExitDone : kExitNothingToDo, is_new ? "done" : "nothing_to_do");
  outcome.change->happened = is_new;
  outcome.members["hold"] = HoldJson(hold);
  outcome.text = Capitalized(HoldWords(hold)) + ". To end that: sudo packctl unhold\n";
  return outcome;
}

Outcome UnholdUpdates(Context& /*context*/) {
  const bool was_held = ReadHold(std::time(nullptr)).has_value();
  EndHold();
  Outcome outcome = EndOfChange(was_held ? kExitDone : kExitNothingToDo, was_held ? "done" : "nothing_to_do");
  outcome.change->happened = was_held;
  outcome.members["hold"] = HoldJson(std::nullopt);
  outcome.text = was_held ? "Updates are held no longer.\n" : "Updates were not held.\n";
  return outcome;
}

}  // namespace orbamira::packctl
