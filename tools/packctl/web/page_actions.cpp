#include "tools/packctl/web/page_actions.h"

#include <algorithm>
#include <array>

#include "tools/packctl/view/status_words.h"
#include "tools/packctl/view/wait_words.h"
#include "updater/pack_status_helper.h"

namespace orbamira::packctl {
namespace {

using updater::PackStatus;
using Rules = updater::PackStatusHelper;
using Rule = bool (Rules::*)(PackStatus) const;

std::optional<Refusal> Always(const MachineState& /*state*/) { return std::nullopt; }

Refusal Unreadable(const MachineState& state) {
  return {CodeOf(FailureReason::kRecordUnreadable), state.record_problem};
}

Refusal Forbidden(const std::string& noun, PackStatus status) {
  return {CodeOf(FailureReason::kNotPermitted), "the " + noun + " is not permitted while the recorded status is " +
                                                    StatusText(status) + " (" + StatusMeaning(status) + ")"};
}

// What the record permits by this rule.
auto IfPermitted(const std::string& noun, Rule rule) {
  return [noun, rule](const MachineState& state) -> std::optional<Refusal> {
    if (!state.record) {
      return Unreadable(state);
    }
    const PackStatus status = state.record->status;
    return (Rules(nullptr).*rule)(status) ? std::nullopt : std::optional(Forbidden(noun, status));
  };
}

// What the record permits by this rule, unless updates are held.
auto UnlessHeld(const std::string& noun, Rule rule) {
  return [permitted = IfPermitted(noun, rule)](const MachineState& state) {
    return state.hold ? std::optional(Refusal{CodeOf(FailureReason::kHeld), HoldWords(*state.hold)}) : permitted(state);
  };
}

// What takes the installed pack away.
std::optional<Refusal> WhyPackStays(const std::string& noun, const MachineState& state) {
  if (!state.record) {
    return Unreadable(state);
  }
  if (IsUnderWay(state.record->status)) {
    return Forbidden(noun, state.record->status);
  }
  return state.installed ? std::nullopt : std::optional(Refusal{"not_installed", "no codec pack is installed"});
}

std::optional<Refusal> WhyNoRemoval(const MachineState& state) { return WhyPackStays("removal", state); }

std::optional<Refusal> WhyNoRollback(const MachineState& state) {
  const bool has_previous = state.previous_version.has_value();
  return has_previous ? WhyPackStays("rollback", state) : Refusal{"no_previous_pack", "there is no previous pack"};
}

}  // namespace

std::span<const PageAction> PageActions() {
  static const std::array kActions = {
      PageAction{"check", {"check"}, &Always},
      PageAction{"download", {"download"}, IfPermitted("download", &Rules::CanDoDownload)},
      PageAction{"install", {"install"}, UnlessHeld("install", &Rules::CanDoInstall)},
      PageAction{"update", {"update"}, UnlessHeld("update", &Rules::CanDoDownloadInstall)},
      PageAction{"reinstall", {"update", "--reinstall"}, UnlessHeld("update", &Rules::CanDoDownloadInstall)},
      PageAction{"rollback", {"rollback", "--yes"}, &WhyNoRollback},
      PageAction{"remove", {"remove", "--yes"}, &WhyNoRemoval},
      PageAction{"recover", {"recover"}, &Always},
      PageAction{"doctor", {"doctor"}, &Always},
  };
  return kActions;
}

const PageAction* FindPageAction(const std::string& name) {
  const auto actions = PageActions();
  const auto found =
      std::find_if(actions.begin(), actions.end(), [&](const PageAction& action) { return action.name == name; });
  return found == actions.end() ? nullptr : &*found;
}

}  // namespace orbamira::packctl
