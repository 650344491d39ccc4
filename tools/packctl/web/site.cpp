#include "tools/packctl/web/site.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <exception>
#include <string_view>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/posix/files.h"

namespace orbamira::packctl {
namespace {

constexpr std::string_view kApi = "/api/";
constexpr const char* kStatePath = "/api/state";
constexpr const char* kHistoryPath = "/api/history";
constexpr const char* kUnlockPath = "/api/unlock";

const PageAction* ActionOf(const HttpRequest& request) {
  return request.path.starts_with(kApi) ? FindPageAction(request.path.substr(kApi.size())) : nullptr;
}

HttpReply JsonReply(int status, const Json::Value& json) {
  return {.status = status, .body = std::make_shared<const std::string>(JsonLine(json))};
}

HttpReply Locked() { return ErrorReply(503, "locked", "the state cannot be read: another program keeps a lock"); }

HttpReply Refused(const Refusal& why_not) { return ErrorReply(409, why_not.code, Printable(why_not.message)); }

UniqueFd MakeEvent() {
  UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event.valid()) {
    ThrowErrno("cannot wait for changes");
  }
  return event;
}

std::string HostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string UserName() {
  const passwd* const user = getpwuid(geteuid());
  return user == nullptr ? std::to_string(geteuid()) : user->pw_name;
}

}  // namespace

WebSite::WebSite(Context& context, std::string token, bool port_is_held)
    : server_{.name = HostName(), .user = UserName(), .port_is_held = port_is_held},
      access_(std::move(token), context.options.web.host_names),
      tag_front_(MakeToken().substr(0, 16) + "-"),
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
  const HttpReply* const file = page_.Find(request);
  const bool acts = request.path == kUnlockPath || ActionOf(request) != nullptr;
  if (file == nullptr && request.path != kStatePath && request.path != kHistoryPath && !acts) {
    return ErrorReply(404, "not_found", "there is nothing here");
  }
  const bool reads = request.method == "GET" || request.method == "HEAD";
  if (acts ? request.method != "POST" : !reads) {
    HttpReply refusal = ErrorReply(405, "wrong_method", "this cannot be done here");
    refusal.allow = acts ? "POST" : "GET, HEAD";
    return refusal;
  }
  if (acts) {
    return Act(request);
  }
  if (file != nullptr) {
    return *file;
  }
  return request.path == kHistoryPath ? AnswerHistory() : AnswerState(request, may_wait);
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
  return text_ == nullptr ? Locked() : HttpReply{.body = text_};
}

HttpReply WebSite::AnswerHistory() const {
  const std::optional<WebState::Seen> seen = state_.Latest();
  return seen ? JsonReply(200, HistoryJson(seen->state)) : Locked();
}

// Nothing before the first look has ended.
std::shared_ptr<const std::string> WebSite::StateText() const {
  const std::optional<WebState::Seen> seen = state_.Latest();
  if (!seen) {
    return nullptr;
  }
  return std::make_shared<const std::string>(
      JsonLine(PageJson({.seen = *seen,
                         .tag = tag_,
                         .history_tag = tag_front_ + std::to_string(seen->state.history_changes),
                         .server = server_,
                         .action = actions_.Last(),
                         .diagnosis = actions_.LastDiagnosis(),
                         .busy = WhoIsBusy(seen->state.at_work)})));
}

std::optional<Refusal> WebSite::WhoIsBusy(bool others_are) const {
  const auto busy = [](const std::string& who) { return Refusal{CodeOf(FailureReason::kBusy), who + " is at work"}; };
  const std::optional<WebAction> last = actions_.Last();
  if (last && last->running) {
    return busy("packctl " + last->command);
  }
  return others_are ? std::optional(busy("another program")) : std::nullopt;
}

HttpReply WebSite::Act(const HttpRequest& request) {
  if (auto refusal = access_.RefuseActing(request)) {
    return *std::move(refusal);
  }
  if (request.path == kUnlockPath) {
    return JsonReply(200, Json::objectValue);
  }
  return StartAction(*ActionOf(request));
}

HttpReply WebSite::StartAction(const PageAction& action) {
  if (const auto busy = WhoIsBusy(HolderOf(path::kPackctlLock).has_value())) {
    return Refused(*busy);
  }
  const std::optional<WebState::Seen> seen = state_.Latest();
  if (const auto why_not = seen ? action.why_not(seen->state) : std::nullopt) {
    return Refused(*why_not);
  }
  try {
    if (!actions_.Start(action)) {
      return Refused(*WhoIsBusy(true));
    }
  } catch (const std::exception& error) {
    return ErrorReply(500, CodeOf(FailureReason::kUnexpected), error.what());
  }
  TellOfChange();
  state_.LookAgain();
  Json::Value started;
  started["started"] = action.name;
  return JsonReply(202, started);
}

}  // namespace orbamira::packctl
