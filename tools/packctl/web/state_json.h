#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "tools/packctl/web/actions.h"
#include "tools/packctl/web/state.h"

/// What /api/state tells, as JSON.
namespace orbamira::packctl {

/// Who serves the page.
struct WebServerIdentity {
  std::string user = {};      ///< the account
  bool port_is_held = false;  ///< the service manager keeps the port for it
};

/// All that the page shows at one moment.
struct PageState {
  WebState::Seen seen;
  std::string tag;  ///< another one with each change
  WebServerIdentity server;
  std::optional<WebAction> action;  ///< the one at work, or the last
  std::string busy;                 ///< who is at work, as a sentence; empty when nobody is
};

/// The machine's part of it. Texts from outside are made printable: a browser shows them too.
Json::Value StateJson(const MachineState& state);

Json::Value PageJson(const PageState& page);

}  // namespace orbamira::packctl
