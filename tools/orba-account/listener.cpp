#include "tools/orba-account/listener.h"

#include <openssl/crypto.h>

#include <cctype>
#include <memory>
#include <system_error>
#include <utility>

#include "tools/http/listener.h"
#include "tools/orba-account/error.h"
#include "tools/orba-account/page.h"

namespace orbamira::packctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kPath = "/callback";

HttpReply Page(int status, const std::string& title, const std::string& text) {
  return {.status = status,
          .type = "text/html; charset=utf-8",
          .body = std::make_shared<const std::string>(MakePage(title, text)),
          .policy = PagePolicy()};
}

HttpReply NotHere(int status, const std::string& text) { return Page(status, "Nothing for you here", text); }

// The failure as a whole sentence.
std::string Sentence(std::string failure) {
  failure[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(failure[0])));
  return failure + '.';
}

bool IsEqual(const std::string& left, const std::string& right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

UniqueFd ListenAt(int port) try { return Listen(kHost, port); } catch (const std::system_error&) {
  throw SignInError(port == 0 ? "no port of this machine is free to take the provider's answer"
                              : "port " + std::to_string(port) + " is not free to take the provider's answer");
}

}  // namespace

AnswerListener::AnswerListener(int port, std::string state)
    : expected_(std::move(state)),
      server_(ListenAt(port), [this](const HttpRequest& request, bool may_wait) { return Answer(request, may_wait); }) {
}

AnswerListener::~AnswerListener() { ShowEnd("the sign-in has ended"); }

std::string AnswerListener::RedirectUri() const { return "http://" + server_.local() + kPath; }

std::optional<AuthorizationAnswer> AnswerListener::Wait(std::chrono::seconds limit) {
  server_.RunUntil([this] { return answer_.has_value(); }, Clock::now() + limit);
  return answer_;
}

void AnswerListener::ShowEnd(const std::string& failure) {
  constexpr std::chrono::seconds kPatience{3};
  if (failure_) {
    return;
  }
  failure_ = failure;
  try {
    server_.AskWaiting();
    server_.RunUntil([this] { return !server_.IsServing(); }, Clock::now() + kPatience);
  } catch (const std::system_error&) {  // the browser shows nothing, but the command reports the same
  }
}

std::optional<HttpReply> AnswerListener::Answer(const HttpRequest& request, bool may_wait) {
  if (request.Field("host") != request.local) {
    return NotHere(421, "This request is for another machine.");
  }
  if (request.path != kPath) {
    return NotHere(404, "There is no such page.");
  }
  if (request.method != "GET") {
    HttpReply reply = NotHere(405, "Only a sign-in is taken here.");
    reply.allow = "GET";
    return reply;
  }
  if (!IsEqual(request.Parameter("state").value_or(""), expected_)) {
    return NotHere(400, "This is not the answer to the sign-in that was begun on this machine.");
  }
  return Take(request, may_wait);
}

std::optional<HttpReply> AnswerListener::Take(const HttpRequest& request, bool may_wait) {
  const AuthorizationAnswer answer{.code = request.Parameter("code").value_or(""),
                                   .error = request.Parameter("error").value_or(""),
                                   .error_description = request.Parameter("error_description").value_or(""),
                                   .issuer = request.Parameter("iss").value_or("")};
  if (answer.code.empty() == answer.error.empty()) {
    return Page(400, "Not understood", "The provider's answer holds neither a code nor an error.");
  }
  if (!answer_ && !failure_) {
    answer_ = answer;
  }
  if (answer_ != answer) {
    return Page(409, "Answered already", "This sign-in was answered already, or has ended.");
  }
  if (!failure_) {
    return may_wait ? std::nullopt : std::optional(Page(503, "Not done yet", "The provider takes long to answer."));
  }
  return failure_->empty() ? Page(200, "You are signed in", "This window may be closed.")
                           : Page(400, "You are not signed in", Sentence(*failure_));
}

}  // namespace orbamira::packctl
