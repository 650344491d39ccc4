#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace orbamira::packctl {

/// What the provider sent the browser back with: a code, or an error.
struct AuthorizationAnswer {
  std::string code;
  std::string error;
  std::string error_description;
  std::string issuer;  ///< RFC 9207; empty when the answer does not name it
};

/// Takes the provider's answer from the user's browser, on the loopback of this machine (RFC 8252, section 7.3).
///
/// Any page that the browser shows, and any user of this machine, can send requests there: only one that is to the
/// right address and knows the state counts, and only the first of them. The others get an error page and change
/// nothing.
class AnswerListener {
 public:
  /// Begins to listen on the port; 0 is a free one. Throws SignInError when that cannot be had.
  AnswerListener(int port, const std::string& state);

  /// Waits for the pages under way to be sent, a few seconds at most.
  ~AnswerListener();

  AnswerListener(const AnswerListener&) = delete;
  AnswerListener& operator=(const AnswerListener&) = delete;

  /// Where the provider is to send the browser.
  [[nodiscard]] std::string RedirectUri() const;

  /// Waits for the answer; empty when none came in time.
  [[nodiscard]] std::optional<AuthorizationAnswer> Wait(std::chrono::seconds limit);

  /// Shows the end to the user, whose browser has waited for it: without a failure, that he is signed in.
  void ShowEnd(const std::string& failure);

 private:
  class State;

  std::shared_ptr<State> state_;
};

}  // namespace orbamira::packctl
