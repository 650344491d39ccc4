#include <optional>
#include <string>
#include <utility>

#include "platform/json/json_line.h"
#include "platform/json/json_values.h"
#include "tools/http/listener.h"
#include "tools/http/server.h"
#include "tools/packctl/cli/signals.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/web/access.h"
#include "tools/packctl/web/site.h"

namespace orbamira::packctl {
namespace {

// `token` is empty where it is not to be shown.
std::string StartLines(bool json, const std::string& address, const std::string& token) {
  if (json) {
    Json::Value answer;
    answer["address"] = address;
    answer["token"] = NullIfEmpty(token);
    return JsonLine(answer);
  }
  return "Address: " + address + "\n" +
         (token.empty() ? "" : "With the right to act: " + address + "#token=" + token + "\n");
}

}  // namespace

Outcome Web(Context& context) {
  EndOnSignals(context.console.IsTerminal());
  const WebOptions& options = context.options.web;
  const bool own_token = options.token_file.empty();
  const std::string token = own_token ? MakeToken() : ReadToken(options.token_file);
  std::optional<UniqueFd> inherited = InheritedListener();
  const bool port_is_held = inherited.has_value();
  UniqueFd listener = port_is_held ? *std::move(inherited) : Listen(options.listen, options.port);
  WebSite site(context, token, port_is_held);
  WebServer server(std::move(listener),
                   [&site](const HttpRequest& request, bool may_wait) { return site.Answer(request, may_wait); });
  if (!IsLoopback(server.local())) {
    context.console.Complain("listening beyond this machine without TLS: whoever sees the traffic sees the token");
  }
  const std::string address = "http://" + server.local() + "/";
  if (!context.console.Print(StartLines(context.options.json, address, own_token ? token : ""))) {
    return {.exit = kExitFailed, .members = Json::nullValue, .problems = {"cannot write to the standard output"}};
  }
  server.Run(site.changed());
}

}  // namespace orbamira::packctl
