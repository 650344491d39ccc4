#include "tools/packctl/web/site.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <tuple>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/posix/files.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kCheckPath = "/api/check";
constexpr const char* kUpdatePath = "/api/update";
constexpr const char* kStatePath = "/api/state";

/// The page's files, by the paths that they are asked for under.
std::map<std::string, HttpReply> ReadPage() {
  constexpr std::size_t kMaxSize = 256UL * 1024;
  constexpr const char* kScript = "text/javascript; charset=utf-8";
  const auto folder = std::filesystem::path(path::kDefaultPkgSetting).parent_path() / "web";
  std::map<std::string, HttpReply> page;
  for (const auto& [asked, name, type] :
       {std::tuple("/", "page.html", "text/html; charset=utf-8"),
        std::tuple("/page.css", "page.css", "text/css; charset=utf-8"), std::tuple("/page.js", "page.js", kScript),
        std::tuple("/reasons.js", "reasons.js", kScript)}) {
    const std::string path = folder / name;
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid()) {
      ThrowErrno("cannot read the page " + path);
    }
    std::string text(kMaxSize, '\0');
    text.resize(ReadFully(file.get(), text.data(), text.size(), path));
    page[asked] = {.type = type, .body = std::make_shared<const std::string>(text)};
  }
  return page;
}

UniqueFd MakeEvent() {
  UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event.valid()) {
    ThrowErrno("cannot wait for changes");
  }
  return event;
}

std::string UserName() {
  const passwd* const user = getpwuid(geteuid());
  return user == nullptr ? std::to_string(geteuid()) : user->pw_name;
}

}  // namespace

WebSite::WebSite(Context& context, std::string token, bool port_is_held)
    : server_{.user = UserName(), .port_is_held = port_is_held},
      access_(std::move(token), context.options.web.host_names),
      tag_front_(MakeToken().substr(0, 16) + "-"),
      page_(ReadPage()),
      changed_(MakeEvent()),
      state_(context.console, [this] { TellOfChange(); }),
      actions_(context.options.web.update_unit, [this] {
        state_.LookAgain();
        TellOfChange();
      }) {}

std::optional<HttpReply> WebSite::Answer(const HttpRequest& request, bool may_wait) {
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
    return StartAction(request);
  }
  return page == page_.end() ? AnswerState(request, may_wait) : page->second;
}

void WebSite::TellOfChange() {
  ++changes_;
  // Fails only when it is told of already.
  static_cast<void>(eventfd_write(changed_.get(), 1));
}

std::optional<HttpReply> WebSite::AnswerState(const HttpRequest& request, bool may_wait) {
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
std::shared_ptr<const std::string> WebSite::StateText() const {
  const std::optional<WebState::Seen> seen = state_.Latest();
  if (!seen) {
    return nullptr;
  }
  return std::make_shared<const std::string>(JsonLine(PageJson({.seen = *seen,
                                                                .tag = tag_,
                                                                .server = server_,
                                                                .action = actions_.Last(),
                                                                .busy = WhoIsBusy(seen->state.at_work)})));
}

std::string WebSite::WhoIsBusy(bool others_are) const {
  const std::optional<WebAction> last = actions_.Last();
  if (last && last->running) {
    return "packctl " + last->command + " is at work";
  }
  return others_are ? "another program is at work" : "";
}

HttpReply WebSite::StartAction(const HttpRequest& request) {
  if (auto refusal = access_.RefuseActing(request)) {
    return *std::move(refusal);
  }
  if (const std::string busy = WhoIsBusy(HolderOf(path::kPackctlLock).has_value()); !busy.empty()) {
    return ErrorReply(409, busy);
  }
  const bool updates = request.path == kUpdatePath;
  const std::optional<WebState::Seen> seen = state_.Latest();
  if (const std::string why_not = updates && seen ? WhyNoUpdate(seen->state) : ""; !why_not.empty()) {
    return ErrorReply(409, Printable(why_not));
  }
  const std::string command = updates ? "update" : "check";
  try {
    if (!actions_.Start(command)) {
      return ErrorReply(409, WhoIsBusy(true));
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

}  // namespace orbamira::packctl
