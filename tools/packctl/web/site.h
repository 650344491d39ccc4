#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "platform/posix/unique_fd.h"
#include "tools/http/message.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/web/access.h"
#include "tools/packctl/web/actions.h"
#include "tools/packctl/web/page_files.h"
#include "tools/packctl/web/state.h"
#include "tools/packctl/web/state_json.h"

/// What "packctl web" answers to a browser: the page, the state, and actions for those that bring the token.
namespace orbamira::packctl {

class WebSite {
 public:
  /// Begins to look at the state. `port_is_held` by the service manager. Throws std::exception when a file of the page
  /// or the state cannot be used. What the context's console holds is the site's from now on.
  WebSite(Context& context, std::string token, bool port_is_held);

  /// Readable when something has changed.
  [[nodiscard]] int changed() const { return changed_.get(); }

  /// The answer to the request, for WebServer. To be called from one thread.
  std::optional<HttpReply> Answer(const HttpRequest& request, bool may_wait);

 private:
  void TellOfChange();
  std::optional<HttpReply> AnswerState(const HttpRequest& request, bool may_wait);
  HttpReply AnswerHistory() const;
  std::shared_ptr<const std::string> StateText() const;
  [[nodiscard]] std::optional<Refusal> WhoIsBusy(bool others_are) const;
  HttpReply Act(const HttpRequest& request);
  HttpReply StartAction(const PageAction& action);

  WebServerIdentity server_;
  WebAccess access_;
  std::string tag_front_;  // another one each time the program is started
  PageFiles page_;
  UniqueFd changed_;
  std::atomic<unsigned long> changes_ = 0;
  WebState state_;
  WebActions actions_;
  std::string tag_;                          // of the text
  std::shared_ptr<const std::string> text_;  // of the state
};

}  // namespace orbamira::packctl
