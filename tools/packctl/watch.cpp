#include "tools/packctl/watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>

#include "platform/constants.h"
#include "platform/unique_fd.h"
#include "tools/common/posix.h"
#include "tools/packctl/json_line.h"
#include "tools/packctl/progress_view.h"
#include "tools/packctl/status_reader.h"
#include "tools/packctl/status_words.h"

namespace orbamira::packctl {
namespace {

// Ends in the handler: the program may be waiting for a lock, or for a terminal that takes no more.
void End(int /*signal_number*/) { _exit(kExitDone); }

void EndLineAndEnd(int signal_number) {
  const int terminal = open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (terminal >= 0 && write(terminal, "\n", 1) < 0) {
    _exit(kExitFailed);
  }
  End(signal_number);
}

void EndOnSignals(bool on_terminal) {
  struct sigaction action {};
  action.sa_handler = on_terminal ? EndLineAndEnd : End;
  for (const int signal_number : {SIGINT, SIGTERM}) {
    sigaction(signal_number, &action, nullptr);
  }
}

/// Sleeps until the status store has changed.
class StoreWatch {
 public:
  enum class Wake { kLook, kOutputGone };

  explicit StoreWatch(int output) : output_(output), fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) { Watch(); }

  /// Returns when a change was told of, or after a while without: a folder that is missing, put in place of the watched
  /// one or on another machine tells nothing.
  Wake Wait() {
    constexpr int kWatchedMs = 60'000;
    constexpr int kUnwatchedMs = 1'000;
    while (true) {
      std::array<pollfd, 2> waited{
          {{.fd = output_, .events = 0, .revents = 0}, {.fd = fd_.get(), .events = POLLIN, .revents = 0}}};
      const int ready = poll(waited.data(), waited.size(), watched_ ? kWatchedMs : kUnwatchedMs);
      if (ready < 0 && errno != EINTR) {
        tools::ThrowErrno("cannot wait for the status store");
      }
      if (ready > 0 && waited[0].revents != 0) {
        return Wake::kOutputGone;
      }
      if (!watched_) {
        Watch();
      }
      if (ready == 0 || TakeEvents()) {
        return Wake::kLook;
      }
    }
  }

 private:
  void Watch() {
    const std::string folder = std::filesystem::path(path::kPackStatusFile).parent_path();
    watched_ = inotify_add_watch(fd_.get(), folder.c_str(),
                                 IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE | IN_DELETE | IN_DELETE_SELF |
                                     IN_MOVE_SELF | IN_ONLYDIR) >= 0;
  }

  /// Whether what happened since the last call may concern the store.
  bool TakeEvents() {
    const std::string name = std::filesystem::path(path::kPackStatusFile).filename();
    alignas(inotify_event) std::array<char, 4096> buffer{};
    bool concerned = false;
    for (ssize_t length = 0; (length = read(fd_.get(), buffer.data(), buffer.size())) > 0;) {
      for (ssize_t at = 0; at < length;) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + at, sizeof event);
        const char* const file = buffer.data() + at + sizeof event;
        if ((event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
          Watch();
        }
        concerned = concerned || event.len == 0 || name == file;
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
    return concerned;
  }

  int output_;
  UniqueFd fd_;
  bool watched_ = false;
};

// Whether whoever read the output is gone, which is no failure of ours.
bool IsGone(int output) {
  pollfd reader{.fd = output, .events = 0, .revents = 0};
  return poll(&reader, 1, 0) > 0;
}

/// What a look at the store gave: the record, or why there is none.
struct Look {
  std::optional<StatusRecord> record = {};
  std::string problem = {};

  friend bool operator==(const Look&, const Look&) = default;
};

Look TakeLook() {
  try {
    return {.record = ReadStatus()};
  } catch (const std::exception& error) {
    return {.problem = error.what()};
  }
}

std::string StatusLine(const StatusRecord& record) {
  const std::string version = record.new_version.empty() ? "" : ", version " + tools::Printable(record.new_version);
  return std::string(StatusText(record.status)) + " (" + StatusMeaning(record.status) + version + ")\n";
}

class Watcher {
 public:
  explicit Watcher(Context& context) : console_(context.console), json_(context.options.json) {}

  void Show(const Look& look) {
    if (look.record) {
      ShowRecord(*look.record);
    } else {
      ShowProblem(look.problem);
    }
  }

  [[nodiscard]] bool can_write() const { return can_write_; }

 private:
  void ShowProblem(const std::string& problem) {
    if (json_) {
      Json::Value answer;
      answer["command"] = "status";
      answer["result"] = "failed";
      Write(JsonLine(answer));
    }
    EndProgress();
    line_.clear();
    console_.Complain(problem);
  }

  void ShowRecord(const StatusRecord& record) {
    if (json_) {
      Write(JsonLine(record.ToJson()));
      return;
    }
    if (const std::string line = StatusLine(record); line != line_) {
      EndProgress();
      Write(line);
      line_ = line;
    }
    if (progress_ == nullptr) {
      progress_ = MakeProgressView(
          console_.IsTerminal(), [this](std::string_view text) { Write(text); }, [this] { return console_.Columns(); });
    }
    progress_->Show(record, ProgressView::Clock::now());
  }

  void EndProgress() {
    if (progress_ != nullptr) {
      progress_->Finish();
      progress_.reset();
    }
  }

  void Write(std::string_view text) { can_write_ = console_.Print(text) && can_write_; }

  Console& console_;
  bool json_;
  bool can_write_ = true;
  std::string line_;  // about the status, as it was last shown
  std::unique_ptr<ProgressView> progress_;
};

}  // namespace

Outcome WatchStatus(Context& context) {
  EndOnSignals(context.console.IsTerminal());
  StoreWatch store(context.console.output());
  Watcher watcher(context);
  Look shown = TakeLook();
  watcher.Show(shown);
  while (watcher.can_write() && store.Wait() == StoreWatch::Wake::kLook) {
    Look now = TakeLook();
    if (now != shown) {
      shown = std::move(now);
      watcher.Show(shown);
    }
  }
  Outcome outcome{.json = Json::nullValue};
  if (!watcher.can_write() && !IsGone(context.console.output())) {
    outcome.exit = kExitFailed;
    outcome.problems = {"cannot write to the standard output"};
  }
  return outcome;
}

}  // namespace orbamira::packctl
