#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/http/message.h"

/// Who may read the page, and who may act on it.
namespace orbamira::packctl {

/// Whether the address and port are of this machine alone.
bool IsLoopback(const std::string& local);

/// A random 256-bit token, in hexadecimal. Throws std::system_error.
std::string MakeToken();

/// The token in the file, which only its owner may be able to read. Throws std::exception, in words for the user.
std::string ReadToken(const std::string& path);

/// Who may read and who may act. A browser sends what any page tells it to, so that a request comes from this machine
/// says nothing: it must name us as its host, come from a page of ours, and to act bring what only our user knows.
class WebAccess {
 public:
  /// `names` are further names of this host, as a web server in front of us passes them on.
  WebAccess(std::string token, std::vector<std::string> names);

  /// Why the request is not answered; nothing when it may be. For requests that change nothing.
  [[nodiscard]] std::optional<HttpReply> RefuseReading(const HttpRequest& request) const;

  /// As above, for requests that change something.
  [[nodiscard]] std::optional<HttpReply> RefuseActing(const HttpRequest& request) const;

 private:
  [[nodiscard]] bool IsOurs(const std::string& host, const std::string& local) const;

  std::string token_;
  std::vector<std::string> names_;
};

}  // namespace orbamira::packctl
