#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tools/http/server.h"

namespace orbamira::packctl {

/// The provider's answer, which the browser brings back: a code, or an error.
struct AuthorizationAnswer {
  std::string code;
  std::string error;
  std::string error_description;
  std::string issuer;  ///< RFC 9207; empty when it is not in the answer

  friend bool operator==(const AuthorizationAnswer&, const AuthorizationAnswer&) = default;
};

/// Receives the provider's answer from the user's browser, on this machine's loopback address (RFC 8252, section 7.3).
///
/// Any web page and any user of this machine can send requests here. So only the first request with the right address
/// and state counts; all others get an error page and change nothing. Requests are answered during Wait() and
/// ShowEnd(), on the caller's thread; in between they wait.
class AnswerListener {
 public:
  /// Listens on the port; 0 picks a free one. Throws SignInError when the port is not free.
  AnswerListener(int port, std::string state);

  /// Shows in the browser that the sign-in has ended, unless ShowEnd() did.
  ~AnswerListener();

  AnswerListener(const AnswerListener&) = delete;
  AnswerListener& operator=(const AnswerListener&) = delete;

  /// The address to which the provider must send the browser.
  [[nodiscard]] std::string RedirectUri() const;

  /// Waits for the answer; empty when it does not come in time. Throws std::system_error.
  [[nodiscard]] std::optional<AuthorizationAnswer> Wait(std::chrono::seconds limit);

  /// Shows the result in the user's browser, which waits for it: the failure, or, if it is empty, that the user is
  /// signed in. Takes a few seconds at most. Only the first call counts.
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
