#include "tools/http/listener.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "platform/posix/files.h"

namespace orbamira::packctl {
namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses Resolve(const std::string& address, int port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    throw std::runtime_error("no address to listen at: " + Printable(address));
  }
  return {found, freeaddrinfo};
}

}  // namespace

UniqueFd Listen(const std::string& address, int port) {
  const Addresses found = Resolve(address, port);
  UniqueFd fd(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!fd.valid() || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd.get(), found->ai_addr, found->ai_addrlen) != 0 || listen(fd.get(), SOMAXCONN) != 0) {
    ThrowErrno("cannot listen at " + Printable(address) + ", port " + std::to_string(port));
  }
  return fd;
}

std::optional<UniqueFd> InheritedListener() {
  constexpr int kFirst = 3;
  const char* const pid = std::getenv("LISTEN_PID");
  const char* const count = std::getenv("LISTEN_FDS");
  if (pid == nullptr || count == nullptr || pid != std::to_string(getpid())) {
    return std::nullopt;
  }
  if (std::string_view(count) != "1") {
    throw std::runtime_error("one listening socket is expected, not " + Printable(count));
  }
  int listens = 0;
  socklen_t size = sizeof listens;
  if (getsockopt(kFirst, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) {
    throw std::runtime_error("what was handed over is no listening socket");
  }
  UniqueFd listener(kFirst);
  if (fcntl(kFirst, F_SETFD, FD_CLOEXEC) != 0 || fcntl(kFirst, F_SETFL, fcntl(kFirst, F_GETFL) | O_NONBLOCK) != 0) {
    ThrowErrno("cannot use the socket that was handed over");
  }
  return listener;
}

}  // namespace orbamira::packctl
