#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/packctl/web/state.h"

/// What a visitor with the token may have packctl do.
namespace orbamira::packctl {

/// Why something that the page asks for is not done.
struct Refusal {
  std::string code;     ///< for the page, which has a sentence for it
  std::string message;  ///< a clause
};

/// An action of the page.
struct PageAction {
  const char* name;                    ///< "POST /api/NAME" starts it
  std::vector<std::string> arguments;  ///< of packctl
  /// Why it may not begin in this state; empty when it may.
  std::function<std::optional<Refusal>(const MachineState&)> why_not;
};

/// All actions.
std::span<const PageAction> PageActions();

/// The action of this name; null without one.
const PageAction* FindPageAction(const std::string& name);

}  // namespace orbamira::packctl
