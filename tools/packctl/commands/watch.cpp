#include "tools/packctl/commands/watch.h"

#include <poll.h>

#include <exception>
#include <memory>
#include <optional>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/posix/files.h"
#include "tools/packctl/cli/signals.h"
#include "tools/packctl/commands/status.h"
#include "tools/packctl/record/file_watch.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/failure_words.h"
#include "tools/packctl/view/progress_view.h"
#include "tools/packctl/view/status_words.h"

namespace orbamira::packctl {
namespace {

// Whether whoever read the output is gone, which is no failure of ours.
bool IsGone(int output) {
  pollfd reader{.fd = output, .events = 0, .revents = 0};
  return poll(&reader, 1, 0) > 0;
}

/// What a look at the store gave: the status, or why there is none.
struct Look {
  std::optional<SeenStatus> seen = {};
  std::string problem = {};

  friend bool operator==(const Look&, const Look&) = default;
};

Look TakeLook() {
  try {
    return {.seen = LookAtStatus()};
  } catch (const std::exception& error) {
    return {.problem = error.what()};
  }
}

std::string StatusLine(const StatusRecord& record) {
  const std::string version = record.new_version.empty() ? "" : ", version " + Printable(record.new_version);
  return std::string(StatusText(record.status)) + " (" + StatusMeaning(record.status) + version + ")\n";
}

class Watcher {
 public:
  explicit Watcher(Context& context) : console_(context.console), json_(context.options.json) {}

  void Show(const Look& look) {
    if (look.seen) {
      ShowStatus(*look.seen);
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
      answer["error"] = FailureJson(ExplainFailure("status", {.problems = {problem}}));
      Write(JsonLine(answer));
    }
    EndProgress();
    line_.clear();
    console_.Complain(problem);
  }

  void ShowStatus(const SeenStatus& seen) {
    const StatusRecord& record = seen.record;
    if (json_) {
      Write(JsonLine(StatusAnswer(seen)));
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
  FileWatch store({path::kPackStatusFile});
  const pollfd output{.fd = context.console.output(), .events = 0, .revents = 0};  // tells of an error alone
  Watcher watcher(context);
  Look shown = TakeLook();
  watcher.Show(shown);
  while (watcher.can_write() && store.Wait(output) == FileWatch::Wake::kLook) {
    Look now = TakeLook();
    if (now != shown) {
      shown = std::move(now);
      watcher.Show(shown);
    }
  }
  Outcome outcome{.members = Json::nullValue};
  if (!watcher.can_write() && !IsGone(context.console.output())) {
    outcome.exit = kExitFailed;
    outcome.problems = {"cannot write to the standard output"};
  }
  return outcome;
}

}  // namespace orbamira::packctl
