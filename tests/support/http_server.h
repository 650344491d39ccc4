#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace orbamira::test {

/// Field names compare without regard to case, as HTTP has it.
struct FieldNameLess {
  bool operator()(const std::string& left, const std::string& right) const;
};
using HttpHeaders = std::map<std::string, std::string, FieldNameLess>;

/// What a client asked for.
struct HttpRequest {
  std::string method;
  std::string target;
  HttpHeaders headers;
  std::string body;

  /// The field's value; empty when the request has no such field.
  [[nodiscard]] std::string Header(const std::string& name) const;
};

/// What the server answers, and how it misbehaves while it does. The places of a fault count bytes of the body as it
/// is given here; place 0 is right after the header section.
struct HttpResponse {
  /// How the client learns where the body ends.
  enum class Framing {
    kLength,      ///< a Content-Length
    kChunked,     ///< chunked transfer coding
    kUntilClose,  ///< nothing but the end of the connection
  };

  int status = 200;
  HttpHeaders headers = {};
  std::string body = {};
  Framing framing = Framing::kLength;

  /// What Content-Length claims, in place of the body's true size.
  std::optional<std::int64_t> claimed_length = {};
  /// Sends nothing of the answer: the connection ends (is reset, when reset_at is set too) after the request is read.
  bool silent = false;
  /// Ends the connection in an orderly way at this place.
  std::optional<std::size_t> close_at = {};
  /// Resets the connection (RST) at this place.
  std::optional<std::size_t> reset_at = {};
  /// Stops sending at this place until Release(), the client hangs up or the server stops.
  std::optional<std::size_t> stall_at = {};
  /// Sends the body again and again until the client hangs up or the server stops; never with kLength.
  bool endless = false;
  /// Sends the body in pieces of this many bytes, `pause` apart; 0 sends it in one go.
  std::size_t piece = 0;
  std::chrono::milliseconds pause{0};
};

/// An HTTP/1.1 server on a free port of 127.0.0.1, for tests that need a real network peer. Serves each connection on
/// its own thread, one request a connection, until it is destroyed. Keeps the client out of any proxy that the
/// environment names.
class HttpServer {
 public:
  /// Answers one request. Called for one request at a time, so it may use what the test owns without a lock as long as
  /// the test looks only after the client is done.
  using Handler = std::function<HttpResponse(const HttpRequest&)>;

  explicit HttpServer(Handler handler);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// "http://127.0.0.1:PORT" followed by the target.
  [[nodiscard]] std::string Url(const std::string& target = "/") const;

  /// The requests read so far, in order.
  [[nodiscard]] std::vector<HttpRequest> Requests() const;

  /// Lets every stalled answer go on, now and from now on.
  void Release() const;

 private:
  class Socket;

  void AcceptLoop();
  void Serve(const Socket& client);
  std::optional<HttpRequest> ReadRequest(const Socket& client) const;
  void Answer(const Socket& client, const HttpResponse& response) const;
  bool SendBody(const Socket& client, const HttpResponse& response) const;
  bool Send(const Socket& client, std::string_view bytes) const;
  bool WaitFor(const Socket& client, short events) const;
  void Stall(const Socket& client) const;

  const Handler handler_;
  int listener_ = -1;
  int port_ = 0;
  int stop_ = -1;     // readable once the server stops
  int release_ = -1;  // readable once stalls are released
  mutable std::mutex mutex_;
  std::vector<HttpRequest> requests_;
  std::list<std::thread> connections_;  // used by the accepting thread alone
  std::thread acceptor_;
};

/// A port of 127.0.0.1 that refuses every connection for the life of the object.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  [[nodiscard]] std::string Url(const std::string& target = "/") const;

 private:
  int socket_ = -1;
  int port_ = 0;
};

/// A port of 127.0.0.1 that answers no connection for the life of the object: its queue is full.
class SilentPort {
 public:
  SilentPort();
  ~SilentPort();
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;

  [[nodiscard]] std::string Url(const std::string& target = "/") const;

 private:
  int socket_ = -1;
  int port_ = 0;
  std::vector<int> queue_;
};

/// What an honest file server answers for `body`: the whole of it, or the part that "Range: bytes=N-" asks for when
/// "If-Range" is absent or names `etag`; 416 when the part begins behind the end. An empty `etag` is not sent.
HttpResponse ServeFile(const HttpRequest& request, const std::string& body, const std::string& etag);

/// Answers as `handler` does, but the connection of the first answer ends at this place of its body.
HttpServer::Handler CutFirstAt(std::size_t place, HttpServer::Handler handler);

/// Bytes in which every place looks different from its surroundings, so that a shifted or repeated part shows.
std::string PatternOf(std::size_t size);

}  // namespace orbamira::test
