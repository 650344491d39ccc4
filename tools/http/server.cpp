#include "tools/http/server.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "platform/posix/files.h"

namespace orbamira::packctl {
namespace {

// Our end of the connection; empty when it is gone already.
std::string LocalAuthority(int fd) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  auto* const generic = reinterpret_cast<sockaddr*>(&address);  // NOLINT: what the interface is made for
  if (getsockname(fd, generic, &size) != 0 || getnameinfo(generic, size, host.data(), host.size(), port.data(),
                                                          port.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "";
  }
  std::string name = host.data();
  // An IPv4 client of a socket for both kinds.
  constexpr std::string_view kMapped = "::ffff:";
  if (name.starts_with(kMapped)) {
    name.erase(0, kMapped.size());
  }
  return (name.find(':') == std::string::npos ? name : "[" + name + "]") + ":" + port.data();
}

}  // namespace

WebServer::WebServer(UniqueFd listener, Answer answer)
    : answer_(std::move(answer)), listener_(std::move(listener)), local_(LocalAuthority(listener_.get())) {}

void WebServer::Run(int changed) {
  while (true) {
    Serve(changed, Clock::time_point::max());
  }
}

void WebServer::RunUntil(const std::function<bool()>& done, Clock::time_point limit) {
  while (!done() && Clock::now() < limit) {
    Serve(-1, limit);
  }
}

void WebServer::Serve(int changed, Clock::time_point limit) {
  const bool accepts = accept_at_ <= Clock::now();
  std::vector<pollfd> waited = {{.fd = accepts ? listener_.get() : -1, .events = POLLIN, .revents = 0},
                                {.fd = changed, .events = POLLIN, .revents = 0}};
  for (const Client& client : clients_) {
    waited.push_back({.fd = client.fd.get(), .events = EventsOf(client.phase), .revents = 0});
  }
  if (poll(waited.data(), waited.size(), Timeout(limit)) < 0 && errno != EINTR) {
    ThrowErrno("cannot wait for clients");
  }
  auto at = waited.begin() + 2;
  for (Client& client : clients_) {
    Handle(client, (at++)->revents);
  }
  if (std::uint64_t count = 0; waited[1].revents != 0 && read(changed, &count, sizeof count) > 0) {
    AskWaiting();
  }
  for (Client& client : clients_) {
    if (client.deadline <= Clock::now()) {
      Expire(client);
    }
  }
  DropDone();
  if (waited[0].revents != 0) {
    Accept();
    DropDone();
  }
}

void WebServer::AskWaiting() {
  for (Client& client : clients_) {
    if (client.phase == Phase::kWaiting) {
      Ask(client, true);
    }
  }
}

bool WebServer::IsServing() const {
  return std::any_of(clients_.begin(), clients_.end(),
                     [](const Client& client) { return client.phase != Phase::kReading || !client.received.empty(); });
}

void WebServer::DropDone() {
  clients_.remove_if([](const Client& client) { return client.phase == Phase::kDone; });
}

int WebServer::Timeout(Clock::time_point limit) const {
  Clock::time_point next = accept_at_ > Clock::now() ? std::min(accept_at_, limit) : limit;
  for (const Client& client : clients_) {
    next = std::min(next, client.deadline);
  }
  if (next == Clock::time_point::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::max(left, std::chrono::milliseconds::zero()).count());
}

void WebServer::Accept() {
  // Few at a time: each is heard before it may have to make room for the next.
  constexpr int kAtATime = 16;
  constexpr std::chrono::milliseconds kPause{200};
  for (int i = 0; i < kAtATime; ++i) {
    UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.valid()) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        accept_at_ = Clock::now() + kPause;
      }
      return;
    }
    MakeRoom();
    std::string local = LocalAuthority(fd.get());
    clients_.push_back({.fd = std::move(fd), .local = std::move(local)});
    StartPhase(clients_.back(), Phase::kReading, kPatience);
    Read(clients_.back());  // what a client on this machine has sent is there already
  }
}

void WebServer::MakeRoom() {
  if (clients_.size() >= kMaxClients) {
    const auto oldest = std::find_if(clients_.begin(), clients_.end(),
                                     [](const Client& client) { return client.phase != Phase::kWaiting; });
    clients_.erase(oldest == clients_.end() ? clients_.begin() : oldest);
  }
}

// What to wait for in the phase.
short WebServer::EventsOf(Phase phase) {
  switch (phase) {
    case Phase::kReading:
    case Phase::kDraining:
      return POLLIN;
    case Phase::kWaiting:
      return POLLRDHUP;
    case Phase::kWriting:
      return POLLOUT;
    case Phase::kDone:
      break;
  }
  return 0;
}

void WebServer::StartPhase(Client& client, Phase phase, Clock::duration patience) {
  client.phase = phase;
  client.deadline = Clock::now() + patience;
}

void WebServer::Handle(Client& client, short events) {
  if (events == 0) {
    return;
  }
  switch (client.phase) {
    case Phase::kReading:
      Read(client);
      break;
    case Phase::kWriting:
      Write(client);
      break;
    case Phase::kDraining:
      Drain(client);
      break;
    case Phase::kWaiting:  // the client is gone
      client.phase = Phase::kDone;
      break;
    case Phase::kDone:
      break;
  }
}

void WebServer::Read(Client& client) {
  std::array<char, 4096> buffer{};
  const ssize_t length = recv(client.fd.get(), buffer.data(), buffer.size(), 0);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (length <= 0) {
    client.phase = Phase::kDone;
    return;
  }
  client.received.append(buffer.data(), static_cast<std::size_t>(length));
  auto parsed = ParseRequest(client.received);
  if (!parsed) {
    return;
  }
  client.received = {};
  if (auto* const request = std::get_if<HttpRequest>(&*parsed)) {
    client.request = std::move(*request);
    client.request.local = client.local;
    Ask(client, true);
  } else {
    Reply(client, std::get<HttpReply>(*parsed));
  }
}

void WebServer::Ask(Client& client, bool may_wait) {
  if (const auto reply = answer_(client.request, may_wait)) {
    Reply(client, *reply);
    return;
  }
  if (client.phase == Phase::kWaiting) {
    return;
  }
  const auto is_waiting = [](const Client& other) { return other.phase == Phase::kWaiting; };
  if (static_cast<std::size_t>(std::count_if(clients_.begin(), clients_.end(), is_waiting)) >= kMaxWaiting) {
    Expire(*std::find_if(clients_.begin(), clients_.end(), is_waiting));
  }
  StartPhase(client, Phase::kWaiting, kLongestWait);
}

void WebServer::Reply(Client& client, const HttpReply& reply) {
  client.head = HeadSection(reply);
  client.body = client.request.method == "HEAD" ? std::make_shared<const std::string>() : reply.body;
  StartPhase(client, Phase::kWriting, kPatience);
  Write(client);
}

void WebServer::Write(Client& client) {
  constexpr std::chrono::seconds kDrainPatience{2};
  const std::size_t size = client.head.size() + client.body->size();
  while (client.sent < size) {
    const bool in_head = client.sent < client.head.size();
    const std::string_view rest = in_head ? std::string_view(client.head).substr(client.sent)
                                          : std::string_view(*client.body).substr(client.sent - client.head.size());
    const ssize_t length = send(client.fd.get(), rest.data(), rest.size(),
                                MSG_NOSIGNAL | (in_head && !client.body->empty() ? MSG_MORE : 0));
    if (length < 0) {
      if (errno != EAGAIN && errno != EINTR) {
        client.phase = Phase::kDone;
      }
      return;
    }
    client.sent += static_cast<std::size_t>(length);
  }
  shutdown(client.fd.get(), SHUT_WR);
  client.body.reset();
  StartPhase(client, Phase::kDraining, kDrainPatience);
}

void WebServer::Drain(Client& client) {
  std::array<char, 4096> buffer{};
  const ssize_t length = recv(client.fd.get(), buffer.data(), buffer.size(), 0);
  if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) {
    client.phase = Phase::kDone;
  }
}

void WebServer::Expire(Client& client) {
  switch (client.phase) {
    case Phase::kWaiting:
      Ask(client, false);
      break;
    case Phase::kReading:
    case Phase::kWriting:
    case Phase::kDraining:
    case Phase::kDone:
      client.phase = Phase::kDone;
      break;
  }
}

}  // namespace orbamira::packctl
