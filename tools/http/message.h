#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

/// The little of HTTP/1.1 that a page needs. One request a connection; nothing of a request is kept or believed
/// before all of it is there.
namespace orbamira::packctl {

/// The text with the letters A to Z as a to z, which is all that HTTP means by it.
std::string LowerCase(std::string_view text);

/// A request as it was sent.
struct HttpRequest {
  std::string method;
  std::string path;                           ///< of the target, as it stands there
  std::string query;                          ///< of the target, without its "?"
  std::map<std::string, std::string> fields;  ///< by their names in lower case
  std::string body;
  std::string local;  ///< address and port that the client reached us at: "127.0.0.1:8080", "[::1]:8080"

  /// The field's value, whose name is given in lower case; empty when the request has none.
  [[nodiscard]] std::optional<std::string> Field(const std::string& name) const;

  /// The decoded value of the query's parameter; empty when it is missing, comes twice or is wrongly encoded.
  [[nodiscard]] std::optional<std::string> Parameter(std::string_view name) const;
};

/// What a page may load and run: what comes from its own server, and nothing else.
constexpr const char* kOwnPartsAlone =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src data:; "
    "frame-ancestors 'none'; base-uri 'none'; form-action 'none'";

/// An answer.
struct HttpReply {
  int status = 200;
  std::string type = "application/json";
  std::shared_ptr<const std::string> body = {};
  std::string policy = kOwnPartsAlone;  ///< for Content-Security-Policy
  std::string allow = {};               ///< with status 405: the methods there are
};

/// An answer in JSON with the one member "error": {"code", "message"}, the reason for programs and as a clause.
HttpReply ErrorReply(int status, const std::string& code, const std::string& message);

/// What the head section and the body of a request may take.
constexpr std::size_t kMaxHeadSize = 8192;
constexpr std::size_t kMaxBodySize = 1024;

/// Understands what a client has sent so far: nothing while more must come, then the request, or what is answered to
/// one that is not understood or too long.
std::optional<std::variant<HttpRequest, HttpReply>> ParseRequest(std::string_view bytes);

/// The head section of the answer.
std::string HeadSection(const HttpReply& reply);

}  // namespace orbamira::packctl
