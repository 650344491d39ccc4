#include <fcntl.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"
#include "tools/http/listener.h"
#include "tools/http/server.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/cli/signals.h"
#include "tools/packctl/web/access.h"
#include "tools/packctl/web/actions.h"
#include "tools/packctl/web/state.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kCheckPath = "/api/check";
constexpr const char* kUpdatePath = "/api/update";
constexpr const char* kStatePath = "/api/state";

/// The page's files, by the paths that they are asked for under.
std::map<std::string, HttpReply> ReadPage() {
  constexpr std::size_t kMaxSize = 256UL * 1024;
  const auto folder = std::filesystem::path(path::kDefaultPkgSetting).parent_path() / "web";
  std::map<std::string, HttpReply> page;
  for (const auto& [asked, name, type] : {std::tuple("/", "page.html", "text/html; charset=utf-8"),
                                          std::tuple("/page.css", "page.css", "text/css; charset=utf-8"),
                                          std::tuple("/page.js", "page.js", "text/javascript; charset=utf-8")}) {
    const std::string path = folder / name;
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid()) {
      tools::ThrowErrno("cannot read the page " + path);
    }
    std::string text(kMaxSize, '\0');
    text.resize(tools::ReadFully(file.get(), text.data(), text.size(), path));
    page[asked] = {.type = type, .body = std::make_shared<const std::string>(text)};
  }
  return page;
}

UniqueFd MakeEvent() {
  UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event.valid()) {
    tools::ThrowErrno("cannot wait for changes");
  }
  return event;
}

/// Who serves the page: the account, and whether the service manager keeps the port for it.
Json::Value AboutServer(bool port_is_held) {
  const passwd* const user = getpwuid(geteuid());
  Json::Value server;
  server["user"] = user == nullptr ? std::to_string(geteuid()) : user->pw_name;
  server["port_is_held"] = port_is_held;
  return server;
}

/// Answers each request, on the server's thread.
class Site {
 public:
  Site(Context& context, std::string token, bool port_is_held)
      : server_(AboutServer(port_is_held)),
        access_(std::move(token), context.options.web.host_names),
        tag_front_(MakeToken().substr(0, 16) + "-"),
        page_(ReadPage()),
        state_(context, [this] { TellOfChange(); }),
        actions_(context.options.web.update_unit, [this] {
          state_.LookAgain();
          TellOfChange();
        }) {}

  /// Readable when something has changed.
  [[nodiscard]] int changed() const { return changed_.get(); }

  std::optional<HttpReply> Answer(const HttpRequest& request, bool may_wait) {
    if (auto refusal = access_.RefuseReading(request)) {
      return refusal;
    }
    const auto page = page_.find(request.path);
    const bool acts = request.path == kCheckPath || request.path == kUpdatePath;
    if (page == page_.end() && request.path != kStatePath && !acts) {
      return ErrorReply(404, "there is nothing here");
    }
    const bool reads = request.method == "GET" || request.method == "HEAD";
    if (acts ? request.method != "POST" : !reads) {
      HttpReply refusal = ErrorReply(405, "this cannot be done here");
      refusal.allow = acts ? "POST" : "GET, HEAD";
      return refusal;
    }
    if (acts) {
      return Act(request);
    }
    return page == page_.end() ? State(request, may_wait) : page->second;
  }

 private:
  void TellOfChange() {
    ++changes_;
    // Fails only when it is told of already.
    static_cast<void>(eventfd_write(changed_.get(), 1));
  }

  std::optional<HttpReply> State(const HttpRequest& request, bool may_wait) {
    const std::string tag = tag_front_ + std::to_string(changes_);
    if (tag != tag_) {
      tag_ = tag;
      text_ = StateText();
    }
    if (may_wait && (text_ == nullptr || request.query == "after=" + tag_)) {
      return std::nullopt;
    }
    return text_ == nullptr ? ErrorReply(503, "the state cannot be read: another program keeps a lock")
                            : HttpReply{.body = text_};
  }

  // Nothing before the first look has ended.
  std::shared_ptr<const std::string> StateText() {
    Json::Value state = state_.Latest();
    if (state.isNull()) {
      return nullptr;
    }
    state["tag"] = tag_;
    state["server"] = server_;
    state["action"] = actions_.Last();
    const std::string busy = Busy(state["at_work"].asBool());
    state["at_work"] = !busy.empty();
    for (const char* action : {"check", "update"}) {
      Json::Value& why_not = state[std::string("why_no_") + action];
      if (!busy.empty()) {
        why_not = busy;
      }
      state[std::string("may_") + action] = why_not.isNull();
    }
    return std::make_shared<const std::string>(JsonLine(state));
  }

  // Who is at work, as a sentence; empty when nobody is.
  std::string Busy(bool others) const {
    const Json::Value last = actions_.Last();
    if (last["running"].asBool()) {
      return "packctl " + last["command"].asString() + " is at work";
    }
    return others ? "another program is at work" : "";
  }

  HttpReply Act(const HttpRequest& request) {
    if (auto refusal = access_.RefuseActing(request)) {
      return *std::move(refusal);
    }
    if (const std::string busy = Busy(HolderOf(path::kPackctlLock).has_value()); !busy.empty()) {
      return ErrorReply(409, busy);
    }
    if (const Json::Value why_not = state_.Latest()["why_no_update"];
        request.path == kUpdatePath && why_not.isString()) {
      return ErrorReply(409, why_not.asString());
    }
    const std::string command = request.path == kUpdatePath ? "update" : "check";
    try {
      if (!actions_.Start(command)) {
        return ErrorReply(409, Busy(true));
      }
    } catch (const std::exception& error) {
      return ErrorReply(500, error.what());
    }
    TellOfChange();
    state_.LookAgain();
    Json::Value started;
    started["started"] = command;
    return {.status = 202, .body = std::make_shared<const std::string>(JsonLine(started))};
  }

  Json::Value server_;
  WebAccess access_;
  std::string tag_front_;  // another one each time the program is started
  std::map<std::string, HttpReply> page_;
  UniqueFd changed_ = MakeEvent();
  std::atomic<unsigned long> changes_ = 0;
  WebState state_;
  WebActions actions_;
  std::string tag_;                          // of the text
  std::shared_ptr<const std::string> text_;  // of the state
};

std::string StartLines(bool json, const std::string& address, const std::string& token, bool show_token) {
  if (json) {
    Json::Value answer;
    answer["address"] = address;
    answer["token"] = show_token ? Json::Value(token) : Json::Value();
    return JsonLine(answer);
  }
  return "Address: " + address + "\n" +
         (show_token ? "With the right to act: " + address + "#token=" + token + "\n" : "");
}

}  // namespace

Outcome Web(Context& context) {
  EndOnSignals(context.console.IsTerminal());
  const WebOptions& options = context.options.web;
  const bool own_token = options.token_file.empty();
  const std::string token = own_token ? MakeToken() : ReadToken(options.token_file);
  std::optional<UniqueFd> inherited = InheritedListener();
  const bool port_is_held = inherited.has_value();
  Site* asked = nullptr;
  WebServer server(port_is_held ? *std::move(inherited) : Listen(options.listen, options.port),
                   [&asked](const HttpRequest& request, bool may_wait) { return asked->Answer(request, may_wait); });
  if (!IsLoopback(server.local())) {
    context.console.Complain("listening beyond this machine without TLS: whoever sees the traffic sees the token");
  }
  Site site(context, token, port_is_held);
  asked = &site;
  if (!context.console.Print(StartLines(context.options.json, "http://" + server.local() + "/", token, own_token))) {
    return {.exit = kExitFailed, .json = Json::nullValue, .problems = {"cannot write to the standard output"}};
  }
  server.Run(site.changed());
}

}  // namespace orbamira::packctl
