#include "tools/orba-account/listener.h"

#include <httplib.h>
#include <openssl/crypto.h>

#include <cctype>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "tools/orba-account/error.h"
#include "tools/orba-account/page.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kPath = "/callback";
constexpr int kOk = 200;
constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kNotAllowed = 405;
constexpr int kConflict = 409;
constexpr int kMisdirected = 421;

void Answer(httplib::Response& response, int status, const std::string& title, const std::string& text) {
  response.status = status;
  response.set_content(MakePage(title, text), "text/html; charset=utf-8");
}

// The failure as a sentence of its own.
std::string Sentence(std::string failure) {
  failure[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(failure[0])));
  return failure + '.';
}

// The parameter, which must not come twice (RFC 6749, section 3.1).
std::optional<std::string> OnlyValue(const httplib::Request& request, const char* name) {
  return request.get_param_value_count(name) == 1 ? std::optional(request.get_param_value(name)) : std::nullopt;
}

bool IsEqual(const std::string& left, const std::string& right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

/// Runs each connection in a thread of its own. The end waits for them only so long: a client that sends its request a
/// byte at a time must not hold up the program.
class Connections : public httplib::TaskQueue {
 public:
  explicit Connections(std::shared_ptr<void> owner) : owner_(std::move(owner)) {}

  void enqueue(std::function<void()> serve) override {
    {
      const std::lock_guard lock(running_->mutex);
      ++running_->count;
    }
    try {
      std::thread([serve = std::move(serve), running = running_, owner = owner_] {
        serve();
        running->End();
      }).detach();
    } catch (const std::system_error&) {  // no thread left: the client is left unserved
      running_->End();
    }
  }

  void shutdown() override {
    constexpr auto kPatience = std::chrono::seconds(3);
    std::unique_lock lock(running_->mutex);
    running_->changed.wait_for(lock, kPatience, [this] { return running_->count == 0; });
  }

 private:
  struct Running {
    std::mutex mutex;
    std::condition_variable changed;
    int count = 0;

    void End() {
      const std::lock_guard lock(mutex);
      --count;
      changed.notify_all();
    }
  };

  std::shared_ptr<Running> running_ = std::make_shared<Running>();
  std::shared_ptr<void> owner_;  // the server that the connections use
};

}  // namespace

/// What the server and the threads of its connections use; lives until the last of them is done.
class AnswerListener::State : public std::enable_shared_from_this<State> {
 public:
  explicit State(std::string state) : expected_(std::move(state)) {}

  void Start(int port) {
    SetUp();
    port_ = port == 0 ? server_.bind_to_any_port(kHost) : (server_.bind_to_port(kHost, port) ? port : -1);
    if (port_ < 0) {
      throw SignInError(port == 0 ? "no port of this machine is free to take the provider's answer"
                                  : "port " + std::to_string(port) + " is not free to take the provider's answer");
    }
    host_ = std::string(kHost) + ":" + std::to_string(port_);
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) {  // or a Stop() would be missed
      std::this_thread::yield();
    }
  }

  void Stop() {
    ShowEnd("the sign-in has ended");
    server_.stop();
    thread_.join();
  }

  [[nodiscard]] std::string RedirectUri() const { return "http://" + host_ + kPath; }

  std::optional<AuthorizationAnswer> Wait(std::chrono::seconds limit) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [this] { return answer_.has_value(); });
    return answer_;
  }

  void ShowEnd(const std::string& failure) {
    const std::lock_guard lock(mutex_);
    if (!failure_) {
      failure_ = failure;
      changed_.notify_all();
    }
  }

 private:
  void SetUp() {
    constexpr time_t kSeconds = 2;
    server_.new_task_queue = [this] { return new Connections(shared_from_this()); };  // NOLINT: the server owns it
    server_.set_keep_alive_max_count(1);
    server_.set_keep_alive_timeout(kSeconds);
    server_.set_read_timeout(kSeconds);
    server_.set_write_timeout(kSeconds);
    server_.set_payload_max_length(0);
    // Not shared with another process, which the library's own options would allow.
    server_.set_socket_options([](socket_t socket) {
      const int yes = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server_.set_default_headers({{"Cache-Control", "no-store"},
                                 {"Content-Security-Policy", PagePolicy()},
                                 {"Referrer-Policy", "no-referrer"},
                                 {"X-Content-Type-Options", "nosniff"}});
    server_.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
      Serve(request, response);
      return httplib::Server::HandlerResponse::Handled;
    });
  }

  void Serve(const httplib::Request& request, httplib::Response& response) {
    constexpr const char* kNotHere = "Nothing for you here";
    if (request.get_header_value("Host") != host_) {
      Answer(response, kMisdirected, kNotHere, "This request is for another machine.");
    } else if (request.path != kPath) {
      Answer(response, kNotFound, kNotHere, "There is no such page.");
    } else if (request.method != "GET") {
      Answer(response, kNotAllowed, kNotHere, "Only a sign-in is taken here.");
    } else if (!IsEqual(OnlyValue(request, "state").value_or(""), expected_)) {
      Answer(response, kBadRequest, kNotHere, "This is not the answer to the sign-in that was begun on this machine.");
    } else {
      Take(request, response);
    }
  }

  void Take(const httplib::Request& request, httplib::Response& response) {
    const AuthorizationAnswer answer{.code = OnlyValue(request, "code").value_or(""),
                                     .error = OnlyValue(request, "error").value_or(""),
                                     .error_description = OnlyValue(request, "error_description").value_or(""),
                                     .issuer = OnlyValue(request, "iss").value_or("")};
    if (answer.code.empty() == answer.error.empty()) {
      Answer(response, kBadRequest, "Not understood", "The provider's answer holds neither a code nor an error.");
      return;
    }
    std::unique_lock lock(mutex_);
    if (answer_ || failure_) {
      Answer(response, kConflict, "Answered already", "This sign-in was answered already.");
      return;
    }
    answer_ = answer;
    changed_.notify_all();
    changed_.wait(lock, [this] { return failure_.has_value(); });
    if (failure_->empty()) {
      Answer(response, kOk, "You are signed in", "This window may be closed.");
    } else {
      Answer(response, kBadRequest, "You are not signed in", Sentence(*failure_));
    }
  }

  const std::string expected_;
  httplib::Server server_;
  int port_ = -1;
  std::string host_;
  std::thread thread_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<AuthorizationAnswer> answer_;
  std::optional<std::string> failure_;  // why it ended; empty text: well
};

AnswerListener::AnswerListener(int port, const std::string& state) : state_(std::make_shared<State>(state)) {
  state_->Start(port);
}

AnswerListener::~AnswerListener() { state_->Stop(); }

std::string AnswerListener::RedirectUri() const { return state_->RedirectUri(); }

std::optional<AuthorizationAnswer> AnswerListener::Wait(std::chrono::seconds limit) { return state_->Wait(limit); }

void AnswerListener::ShowEnd(const std::string& failure) { state_->ShowEnd(failure); }

}  // namespace orbamira::packctl
