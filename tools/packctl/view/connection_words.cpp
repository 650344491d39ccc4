#include "tools/packctl/view/connection_words.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <memory>
#include <optional>
#include <system_error>

#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

struct Attempt {
  std::string host;
  std::string port;
  std::string why;
};

// Takes "Failed to connect to HOST port PORT after N ms: WHY" apart; empty for other words.
std::optional<Attempt> AttemptIn(const std::string& words) {
  const std::string front = "Failed to connect to ";
  const std::size_t port = words.find(" port ");
  const std::size_t after = words.find(" after ");
  const std::size_t why = words.find(": ", after == std::string::npos ? 0 : after);
  if (!words.starts_with(front) || port == std::string::npos || after == std::string::npos || after < port ||
      why == std::string::npos) {
    return std::nullopt;
  }
  const std::size_t number = port + 6;
  return Attempt{.host = words.substr(front.size(), port - front.size()),
                 .port = words.substr(number, after - number),
                 .why = words.substr(why + 2)};
}

// The error that a connection to the address ends with; 0 when there is none, or none within two seconds.
int ErrorOfConnection(const addrinfo& address) {
  constexpr int kPatienceMs = 2000;
  const UniqueFd fd(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) {
    return errno;
  }
  if (connect(fd.get(), address.ai_addr, address.ai_addrlen) == 0) {
    return 0;
  }
  if (errno != EINPROGRESS) {
    return errno;
  }
  pollfd ready{.fd = fd.get(), .events = POLLOUT, .revents = 0};
  int error = 0;
  socklen_t size = sizeof error;
  if (poll(&ready, 1, kPatienceMs) == 1) {
    getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  }
  return error;
}

std::string WhyNotConnected(const Attempt& attempt) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(attempt.host.c_str(), attempt.port.c_str(), &hints, &found) != 0) {
    return "no connection";
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, &freeaddrinfo);
  const int error = ErrorOfConnection(*addresses);
  return error == 0 ? "no connection" : std::generic_category().message(error);
}

std::string Lowered(std::string words) {
  if (!words.empty()) {
    words.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(words.front())));
  }
  return words;
}

}  // namespace

std::string ConnectionWords(const std::string& words) {
  const std::optional<Attempt> attempt = AttemptIn(words);
  if (!attempt) {
    return words;
  }
  const bool is_vague = attempt->why.ends_with("connect to server");
  const bool is_ipv6 = attempt->host.find(':') != std::string::npos;
  return (is_ipv6 ? "[" + attempt->host + "]" : attempt->host) + ":" + attempt->port + ": " +
         Lowered(is_vague ? WhyNotConnected(*attempt) : attempt->why);
}

}  // namespace orbamira::packctl
