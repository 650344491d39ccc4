#include "tools/packctl/web/access.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "platform/posix/files.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

constexpr std::size_t kShortestToken = 32;
constexpr std::size_t kLongestToken = 256;
constexpr const char* kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~+/=";

// "name" of "name:80" and of "name"; "[::1]" of "[::1]:80".
std::string WithoutPort(const std::string& host) {
  const std::size_t colon = host.find(':', host.find(']') + 1);
  return host.substr(0, colon);
}

// How long the comparison takes tells nothing of where the texts differ.
bool IsSame(const std::string& given, const std::string& secret) {
  return given.size() == secret.size() && CRYPTO_memcmp(given.data(), secret.data(), secret.size()) == 0;
}

// A browser says where the request comes from; other programs do not.
bool IsFromElsewhere(const HttpRequest& request, const std::string& host) {
  const std::string site = request.Field("sec-fetch-site").value_or("none");
  const auto origin = request.Field("origin");
  return (site != "same-origin" && site != "none") ||
         (origin && *origin != "http://" + host && *origin != "https://" + host);
}

}  // namespace

bool IsLoopback(const std::string& local) { return local.starts_with("127.") || local.starts_with("[::1]:"); }

std::string MakeToken() {
  constexpr const char* kDigits = "0123456789abcdef";
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("cannot make a token: OpenSSL has no random bytes");
  }
  std::string token;
  for (const unsigned char byte : bytes) {
    token += {kDigits[byte >> 4], kDigits[byte & 0xf]};
  }
  return token;
}

std::string ReadToken(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file.valid()) {
    ThrowErrno("cannot read the token file " + path);
  }
  const struct stat about = Stat(file.get(), path);
  if (!S_ISREG(about.st_mode) || (about.st_mode & 077) != 0) {
    throw std::runtime_error("the token file " + path + " must be a file that its owner alone may use (mode 0600)");
  }
  if (const std::string reason = WhyDistrusted(about, Self(), "it"); !reason.empty()) {
    throw std::runtime_error("the token file " + path + " is not used: " + reason);
  }
  std::string token(kLongestToken + 2, '\0');
  token.resize(ReadFully(file.get(), token.data(), token.size(), path));
  if (token.ends_with('\n')) {
    token.pop_back();
  }
  if (token.size() < kShortestToken || token.size() > kLongestToken ||
      token.find_first_not_of(kLetters) != std::string::npos) {
    throw std::runtime_error("the token in " + path + " must have " + std::to_string(kShortestToken) + " to " +
                             std::to_string(kLongestToken) + " letters, digits or any of -._~+/=");
  }
  return token;
}

WebAccess::WebAccess(std::string token, std::vector<std::string> names)
    : token_(std::move(token)), names_(std::move(names)) {
  std::transform(names_.begin(), names_.end(), names_.begin(), LowerCase);
}

std::optional<HttpReply> WebAccess::RefuseReading(const HttpRequest& request) const {
  const std::string host = LowerCase(request.Field("host").value_or(""));
  if (!IsOurs(host, request.local)) {
    return ErrorReply(403, "wrong_host", "this is not the host that was asked for");
  }
  // The page itself may be reached by a link from elsewhere; what it shows may not be read from there.
  if (request.path.starts_with("/api/") && IsFromElsewhere(request, host)) {
    return ErrorReply(403, "other_site", "requests from other sites are refused");
  }
  return std::nullopt;
}

std::optional<HttpReply> WebAccess::RefuseActing(const HttpRequest& request) const {
  if (auto refusal = RefuseReading(request)) {
    return refusal;
  }
  const std::string type = LowerCase(request.Field("content-type").value_or(""));
  if (type != "application/json" && !type.starts_with("application/json;")) {
    return ErrorReply(415, "not_json", "an action is asked for as application/json");
  }
  constexpr std::string_view kScheme = "bearer ";
  const std::string given = request.Field("authorization").value_or("");
  if (!LowerCase(given).starts_with(kScheme)) {
    return ErrorReply(401, "no_token", "the token is missing");
  }
  if (!IsSame(given.substr(kScheme.size()), token_)) {
    return ErrorReply(401, "wrong_token", "the token is wrong");
  }
  return std::nullopt;
}

// A name that anybody can make point at us must not do; an address cannot be made to.
bool WebAccess::IsOurs(const std::string& host, const std::string& local) const {
  const std::string port = local.substr(WithoutPort(local).size());
  const auto is_address = [&](const std::string& name) {
    return host == name + port || (port == ":80" && host == name);
  };
  return (!local.empty() && is_address(WithoutPort(local))) || (IsLoopback(local) && is_address("localhost")) ||
         std::find(names_.begin(), names_.end(), host) != names_.end() ||
         std::find(names_.begin(), names_.end(), WithoutPort(host)) != names_.end();
}

}  // namespace orbamira::packctl
