#include "tests/support/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace orbamira::test {
namespace {

constexpr std::size_t kPieceUnlessSaid = std::size_t{256} * 1024;

int Check(int result, const char* what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return result;
}

int BindToFreePort() {
  const int fd = Check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Check(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
  return fd;
}

int PortOf(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  Check(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
  return ntohs(address.sin_port);
}

std::string UrlOf(int port, const std::string& target) { return "http://127.0.0.1:" + std::to_string(port) + target; }

void KeepOutOfProxies() { Check(setenv("no_proxy", "127.0.0.1", 1), "setenv"); }

// Cannot fail for a counter this small.
void Signal(int event) { static_cast<void>(eventfd_write(event, 1)); }

std::string ReasonOf(int status) {
  static const std::map<int, std::string> reasons = {
      {200, "OK"},           {206, "Partial Content"},    {301, "Moved Permanently"},     {400, "Bad Request"},
      {403, "Forbidden"},    {404, "Not Found"},          {416, "Range Not Satisfiable"}, {429, "Too Many Requests"},
      {500, "Server Error"}, {503, "Service Unavailable"}};
  const auto found = reasons.find(status);
  return found != reasons.end() ? found->second : "Status";
}

std::string HeaderSection(const HttpResponse& response) {
  std::ostringstream text;
  text << "HTTP/1.1 " << response.status << ' ' << ReasonOf(response.status) << "\r\nConnection: close\r\n";
  for (const auto& [name, value] : response.headers) {
    text << name << ": " << value << "\r\n";
  }
  switch (response.framing) {
    case HttpResponse::Framing::kLength:
      text << "Content-Length: " << response.claimed_length.value_or(static_cast<std::int64_t>(response.body.size()))
           << "\r\n";
      break;
    case HttpResponse::Framing::kChunked:
      text << "Transfer-Encoding: chunked\r\n";
      break;
    case HttpResponse::Framing::kUntilClose:
      break;
  }
  text << "\r\n";
  return text.str();
}

std::string ChunkOf(std::string_view bytes) {
  std::ostringstream text;
  text << std::hex << bytes.size() << "\r\n" << bytes << "\r\n";
  return text.str();
}

}  // namespace

bool FieldNameLess::operator()(const std::string& left, const std::string& right) const {
  return strcasecmp(left.c_str(), right.c_str()) < 0;
}

std::string HttpRequest::Header(const std::string& name) const {
  const auto found = headers.find(name);
  return found != headers.end() ? found->second : "";
}

class HttpServer::Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {}
  ~Socket() { close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  [[nodiscard]] int get() const { return fd_; }

  // Makes the close that follows a reset.
  void ResetOnClose() const {
    const linger at_once{.l_onoff = 1, .l_linger = 0};
    Check(setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once)), "SO_LINGER");
  }

 private:
  int fd_;
};

HttpServer::HttpServer(Handler handler) : handler_(std::move(handler)) {
  KeepOutOfProxies();
  stop_ = Check(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
  release_ = Check(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
  listener_ = BindToFreePort();
  port_ = PortOf(listener_);
  Check(listen(listener_, SOMAXCONN), "listen");
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

HttpServer::~HttpServer() {
  Signal(stop_);
  acceptor_.join();
  close(listener_);
  close(release_);
  close(stop_);
}

std::string HttpServer::Url(const std::string& target) const { return UrlOf(port_, target); }

std::vector<HttpRequest> HttpServer::Requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void HttpServer::Release() const { Signal(release_); }

void HttpServer::AcceptLoop() {
  std::array<pollfd, 2> waited{{{listener_, POLLIN, 0}, {stop_, POLLIN, 0}}};
  while (poll(waited.data(), waited.size(), -1) > 0 && waited[1].revents == 0) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
      connections_.emplace_back([this, fd] { Serve(Socket(fd)); });
    }
  }
  for (std::thread& connection : connections_) {
    connection.join();
  }
}

void HttpServer::Serve(const Socket& client) {
  std::optional<HttpRequest> request = ReadRequest(client);
  if (!request) {
    return;
  }
  HttpResponse response;
  {
    const std::lock_guard lock(mutex_);
    response = handler_(*request);
    requests_.push_back(*std::move(request));
  }
  Answer(client, response);
}

std::optional<HttpRequest> HttpServer::ReadRequest(const Socket& client) const {
  std::string text;
  std::size_t head_end = std::string::npos;
  std::size_t whole = std::string::npos;
  HttpRequest request;
  while (text.size() < whole) {
    if (!WaitFor(client, POLLIN)) {
      return std::nullopt;
    }
    std::array<char, 4096> bytes{};
    const ssize_t received = recv(client.get(), bytes.data(), bytes.size(), 0);
    if (received <= 0) {
      return std::nullopt;
    }
    text.append(bytes.data(), static_cast<std::size_t>(received));
    if (head_end == std::string::npos && (head_end = text.find("\r\n\r\n")) != std::string::npos) {
      std::istringstream head(text.substr(0, head_end + 2));
      std::string line;
      std::getline(head, line);
      std::istringstream(line) >> request.method >> request.target;
      while (std::getline(head, line)) {
        const std::size_t colon = line.find(':');
        const std::size_t value = line.find_first_not_of(' ', colon + 1);
        request.headers[line.substr(0, colon)] = line.substr(value, line.size() - value - 1);
      }
      const std::string length = request.Header("Content-Length");
      whole = head_end + 4 + (length.empty() ? 0 : std::stoul(length));
    }
  }
  request.body = text.substr(head_end + 4);
  return request;
}

void HttpServer::Answer(const Socket& client, const HttpResponse& response) const {
  const bool sent = response.silent || (Send(client, HeaderSection(response)) && SendBody(client, response));
  if (sent && response.reset_at) {
    client.ResetOnClose();
  }
}

// Sends the body up to its end or to where the connection is to be given up.
bool HttpServer::SendBody(const Socket& client, const HttpResponse& response) const {
  const bool chunked = response.framing == HttpResponse::Framing::kChunked;
  const std::size_t end = std::min({response.body.size(), response.close_at.value_or(response.body.size()),
                                    response.reset_at.value_or(response.body.size())});
  const std::size_t piece = response.piece != 0 ? response.piece : kPieceUnlessSaid;
  std::size_t at = 0;
  while (true) {
    if (response.stall_at == at) {
      Stall(client);
    }
    if (at == end) {
      break;
    }
    std::size_t next = std::min(at + piece, end);
    if (response.stall_at && *response.stall_at > at) {
      next = std::min(next, *response.stall_at);
    }
    const std::string_view bytes = std::string_view(response.body).substr(at, next - at);
    if (!(chunked ? Send(client, ChunkOf(bytes)) : Send(client, bytes))) {
      return false;
    }
    at = response.endless && next == end ? 0 : next;
    if (response.pause.count() > 0) {
      pollfd stop{stop_, POLLIN, 0};
      poll(&stop, 1, static_cast<int>(response.pause.count()));
    }
  }
  return !chunked || end < response.body.size() || Send(client, "0\r\n\r\n");
}

bool HttpServer::Send(const Socket& client, std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno != EAGAIN || !WaitFor(client, POLLOUT)) {
      return false;
    }
  }
  return true;
}

// False when the server stops.
bool HttpServer::WaitFor(const Socket& client, short events) const {
  std::array<pollfd, 2> waited{{{client.get(), events, 0}, {stop_, POLLIN, 0}}};
  return poll(waited.data(), waited.size(), -1) > 0 && waited[1].revents == 0;
}

void HttpServer::Stall(const Socket& client) const {
  std::array<pollfd, 3> waited{{{client.get(), POLLRDHUP, 0}, {stop_, POLLIN, 0}, {release_, POLLIN, 0}}};
  poll(waited.data(), waited.size(), -1);
}

RefusingPort::RefusingPort() {
  KeepOutOfProxies();
  socket_ = BindToFreePort();  // bound, so that nobody else gets the port, but not listening
  port_ = PortOf(socket_);
}

RefusingPort::~RefusingPort() { close(socket_); }

std::string RefusingPort::Url(const std::string& target) const { return UrlOf(port_, target); }

SilentPort::SilentPort() {
  constexpr int kMoreThanWait = 8;
  KeepOutOfProxies();
  socket_ = BindToFreePort();
  port_ = PortOf(socket_);
  Check(listen(socket_, 0), "listen");
  sockaddr_in address{};
  socklen_t size = sizeof address;
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  Check(getsockname(socket_, name, &size), "getsockname");
  for (int i = 0; i < kMoreThanWait; ++i) {
    queue_.push_back(Check(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"));
    static_cast<void>(connect(queue_.back(), name, size));
  }
}

SilentPort::~SilentPort() {
  std::ranges::for_each(queue_, close);
  close(socket_);
}

std::string SilentPort::Url(const std::string& target) const { return UrlOf(port_, target); }

HttpResponse ServeFile(const HttpRequest& request, const std::string& body, const std::string& etag) {
  HttpResponse response;
  response.body = body;
  if (!etag.empty()) {
    response.headers["ETag"] = etag;
  }
  const std::string range = request.Header("Range");
  const std::string condition = request.Header("If-Range");
  const std::string_view unit = "bytes=";
  if (!range.starts_with(unit) || (!condition.empty() && condition != etag)) {
    return response;
  }
  std::size_t first = 0;
  std::from_chars(range.data() + unit.size(), range.data() + range.size(), first);
  const std::string size = std::to_string(body.size());
  if (first >= body.size()) {
    response.status = 416;
    response.body.clear();
    response.headers["Content-Range"] = "bytes */" + size;
    return response;
  }
  response.status = 206;
  response.body.erase(0, first);
  response.headers["Content-Range"] =
      "bytes " + std::to_string(first) + "-" + std::to_string(body.size() - 1) + "/" + size;
  return response;
}

HttpServer::Handler CutFirstAt(std::size_t place, HttpServer::Handler handler) {
  return [place, handler = std::move(handler), is_first = true](const HttpRequest& request) mutable {
    HttpResponse response = handler(request);
    if (std::exchange(is_first, false)) {
      response.close_at = place;
    }
    return response;
  };
}

std::string PatternOf(std::size_t size) {
  std::string text(size, '\0');
  std::uint32_t state = 1;
  for (char& byte : text) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24U);
  }
  return text;
}

}  // namespace orbamira::test
