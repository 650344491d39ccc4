// A request to "packctl web": the answer does not depend on how the network splits the request, limits hold, and no
// request acts without the token and our host name.

#include <algorithm>
#include <optional>
#include <string>
#include <variant>

#include "tests/fuzz/fuzzing.h"
#include "tools/http/message.h"
#include "tools/packctl/web/access.h"

namespace {

using orbamira::fuzz::Require;
using orbamira::packctl::HttpReply;
using orbamira::packctl::HttpRequest;
using orbamira::packctl::WebAccess;

constexpr const char* kToken = "0123456789abcdef0123456789abcdef";
constexpr const char* kLocal = "127.0.0.1:8080";

bool IsSame(const HttpRequest& left, const HttpRequest& right) {
  return left.method == right.method && left.path == right.path && left.query == right.query &&
         left.fields == right.fields && left.body == right.body;
}

using Parsed = std::optional<std::variant<HttpRequest, HttpReply>>;

bool IsSame(const Parsed& left, const Parsed& right) {
  if (!left || !right || left->index() != right->index()) {
    return left.has_value() == right.has_value() && !left.has_value();
  }
  const auto* const request = std::get_if<HttpRequest>(&*left);
  return request != nullptr ? IsSame(*request, std::get<HttpRequest>(*right))
                            : std::get<HttpReply>(*left).status == std::get<HttpReply>(*right).status;
}

bool HasControls(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char letter) { return letter < ' ' && letter != '\t'; });
}

void CheckRequest(HttpRequest request) {
  Require(request.path.starts_with('/'), "a path begins with a slash");
  Require(request.path.find('?') == std::string::npos, "a path has no query");
  Require(request.body.size() <= orbamira::packctl::kMaxBodySize, "a body is within its bound");
  Require(!HasControls(request.path) && !HasControls(request.query), "a target has no control characters");
  for (const auto& [name, value] : request.fields) {
    Require(!name.empty() && !HasControls(value), "a field has a name and no control characters");
  }
  request.local = kLocal;
  const WebAccess access(kToken, {});
  if (!access.RefuseActing(request)) {
    const std::string host = orbamira::packctl::LowerCase(request.Field("host").value_or(""));
    Require(host == kLocal || host == "localhost:8080", "who acts has asked for us");
    Require(request.Field("authorization").value_or("").ends_with(kToken), "who acts has the token");
    Require(!access.RefuseReading(request), "who may act may read");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text = orbamira::fuzz::Text(data, size);
  const Parsed whole = orbamira::packctl::ParseRequest(text);
  for (std::size_t cut = 1; cut < size; cut += 1 + size / 16) {
    const Parsed part = orbamira::packctl::ParseRequest(text.substr(0, cut));
    Require(!part || IsSame(part, whole), "what is answered early is what is answered to the whole");
  }
  if (whole && std::holds_alternative<HttpRequest>(*whole)) {
    CheckRequest(std::get<HttpRequest>(*whole));
  }
  return 0;
}
