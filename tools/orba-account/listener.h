#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/http/server.h"

namespace orbamira::packctl {

/// What the provider sent the browser back with: a code, or an error.
struct AuthorizationAnswer {
  std::string code;
  std::string error;
  std::string error_description;
  std::string issuer;  ///< RFC 9207; empty when the answer does not name it

  friend bool operator==(const AuthorizationAnswer&, const AuthorizationAnswer&) = default;
};

/// Takes the provider's answer from the user's browser, on the loopback of this machine (RFC 8252, section 7.3).
///
/// Any page that the browser shows, and any user of this machine, can send requests there: only one that is to the
/// right address and knows the state counts, and only the first of them. The others get an error page and change
/// nothing. Requests are answered during Wait() and ShowEnd(), on the caller's thread; in between they wait.
class AnswerListener {
 public:
  /// Begins to listen on the port; 0 is a free one. Throws SignInError when that cannot be had.
  AnswerListener(int port, std::string state);

  /// Shows that the sign-in has ended, when no other end was shown.
  ~AnswerListener();

  AnswerListener(const AnswerListener&) = delete;
  AnswerListener& operator=(const AnswerListener&) = delete;

  /// Where the provider is to send the browser.
  [[nodiscard]] std::string RedirectUri() const;

  /// Waits for the answer; empty when none came in time. Throws std::system_error.
  [[nodiscard]] std::optional<AuthorizationAnswer> Wait(std::chrono::seconds limit);

  /// Shows the end to the user, whose browser has waited for it: without a failure, that he is signed in. Takes a few
  /// seconds at most. Only the first end is shown.
  void ShowEnd(const std::string& failure);

 private:
  [[nodiscard]] std::optional<HttpReply> Answer(const HttpRequest& request, bool may_wait);
  [[nodiscard]] std::optional<HttpReply> Take(const HttpRequest& request, bool may_wait);

  const std::string expected_;
  std::optional<AuthorizationAnswer> answer_;
  std::optional<std::string> failure_;  // why it ended; empty text: well
  WebServer server_;
};

}  // namespace orbamira::packctl
