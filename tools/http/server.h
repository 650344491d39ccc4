#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/posix/unique_fd.h"
#include "tools/http/message.h"

/// The bounded web server of the page and of the sign-in.
namespace orbamira::packctl {

/// Serves HTTP on one thread, which waits for all its clients at once: whoever is slow or silent keeps nobody waiting.
/// A client has ten seconds for its request and as long to take the answer. So many are served at a time; for one more,
/// the oldest that waits for nothing but itself goes.
class WebServer {
 public:
  /// Answers a request. Nothing means later: it is asked again after each change, and with `may_wait` false once the
  /// client has waited long enough, when it has to answer.
  using Answer = std::function<std::optional<HttpReply>(const HttpRequest& request, bool may_wait)>;

  static constexpr std::size_t kMaxClients = 64;
  static constexpr std::size_t kMaxWaiting = 32;
  static constexpr std::chrono::seconds kPatience{10};
  static constexpr std::chrono::seconds kLongestWait{50};

  /// Serves at a socket that listens and does not block.
  WebServer(UniqueFd listener, Answer answer);

  /// Where it listens: "127.0.0.1:8080".
  [[nodiscard]] const std::string& local() const { return local_; }

  /// Serves until something fails, then throws std::system_error. Whenever `changed` (an eventfd) is readable, it is
  /// reset and the waiting clients are answered anew.
  [[noreturn]] void Run(int changed);

  /// Serves until `done` gives true, which is asked before each round, or the time has come. Throws std::system_error.
  /// Between two calls clients wait.
  void RunUntil(const std::function<bool()>& done, std::chrono::steady_clock::time_point limit);

  /// Answers the waiting clients anew.
  void AskWaiting();

  /// Whether a client has sent something and does not have the whole answer.
  [[nodiscard]] bool IsServing() const;

 private:
  using Clock = std::chrono::steady_clock;

  enum class Phase {
    kReading,   ///< the request is not whole
    kWaiting,   ///< for a change
    kWriting,   ///< the answer is on its way
    kDraining,  ///< it is sent; what the client still sends must be taken, or it would not get to see it
    kDone,
  };

  struct Client {
    UniqueFd fd;
    std::string local;
    Phase phase = Phase::kReading;
    Clock::time_point deadline = {};
    std::string received = {};
    HttpRequest request = {};
    std::string head = {};
    std::shared_ptr<const std::string> body = {};
    std::size_t sent = 0;
  };

  void Serve(int changed, Clock::time_point limit);
  void Accept();
  void MakeRoom();
  static short EventsOf(Phase phase);
  static void StartPhase(Client& client, Phase phase, Clock::duration patience);
  void Read(Client& client);
  void Ask(Client& client, bool may_wait);
  void Reply(Client& client, const HttpReply& reply);
  void Write(Client& client);
  static void Drain(Client& client);
  void Handle(Client& client, short events);
  void Expire(Client& client);
  [[nodiscard]] int Timeout(Clock::time_point limit) const;
  void DropDone();

  Answer answer_;
  UniqueFd listener_;
  std::string local_;
  std::list<Client> clients_;         // oldest first
  Clock::time_point accept_at_ = {};  // not before: there was no descriptor left
};

}  // namespace orbamira::packctl
