#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "tools/packctl/web/actions.h"
#include "tools/packctl/web/page_actions.h"
#include "tools/packctl/web/state.h"

/// What /api/state tells, as JSON.
namespace orbamira::packctl {

/// Who serves the page.
struct WebServerIdentity {
  std::string name = {};      ///< the appliance's
  std::string user = {};      ///< the account
  bool port_is_held = false;  ///< the service manager keeps the port for it
};

/// All that the page shows at one moment.
struct PageState {
  WebState::Seen seen;
  std::string tag;          ///< another one with each change
  std::string history_tag;  ///< another one with each change of the history
  WebServerIdentity server;
  std::optional<WebAction> action;     ///< the one at work, or the last
  std::optional<Diagnosis> diagnosis;  ///< of the doctor; empty when it was not asked
  std::optional<Refusal> busy;         ///< who is at work; empty when nobody is
};

/// The machine's part of it. Texts from outside are made printable: a browser shows them too.
Json::Value StateJson(const MachineState& state);

Json::Value PageJson(const PageState& page);

/// What /api/history tells.
Json::Value HistoryJson(const MachineState& state);

}  // namespace orbamira::packctl
