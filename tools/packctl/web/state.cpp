#include "tools/packctl/web/state.h"

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <sstream>
#include <utility>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "tools/packctl/record/file_watch.h"
#include "tools/packctl/view/progress_text.h"
#include "tools/packctl/view/status_words.h"
#include "updater/pack_status_helper.h"

namespace orbamira::packctl {
namespace {

constexpr std::size_t kShownEntries = 20;

// In the order in which an update takes them.
constexpr std::array kSteps = {"pre_uninstall", "uninstall", "post_uninstall",
                               "pre_install",   "install",   "post_install"};

// What the command answers; null, with its problems added, when it fails.
Json::Value AnswerOf(Outcome (*command)(Context&), Context& context, Json::Value& problems) {
  try {
    Outcome outcome = command(context);
    for (const std::string& problem : outcome.problems) {
      problems.append(problem);
    }
    return outcome.exit == kExitDone ? std::move(outcome.json) : Json::Value();
  } catch (const std::exception& error) {
    problems.append(error.what());
    return {};
  }
}

Json::Value TextOrNull(const std::string& text) { return text.empty() ? Json::Value() : Json::Value(text); }

Json::Value Progress(const StatusRecord& record) {
  const DownloadProgress progress{.now = record.download_size_now, .total = record.download_size_total};
  Json::Value json;
  if (progress.now <= 0 && progress.total <= 0) {
    return json;
  }
  const bool known = progress.total > 0;
  json["now"] = Json::Int64{progress.now};
  json["total"] = known ? Json::Value(Json::Int64{progress.total}) : Json::Value();
  json["percent"] = known ? Json::Value(progress.Percent()) : Json::Value();
  json["text"] =
      FormatBytes(progress.now) +
      (known ? " of " + FormatBytes(progress.total) + " (" + std::to_string(progress.Percent()) + " %)" : "");
  return json;
}

Json::Value Steps() {
  Json::Value steps = Json::arrayValue;
  for (const char* step : kSteps) {
    Json::Value& entry = steps.append(Json::objectValue);
    entry["step"] = step;
    entry["words"] = StepWords(step);
  }
  return steps;
}

Json::Value Offer(const StatusRecord& record) {
  Json::Value offer;
  if (!record.new_version.empty()) {
    offer["package"] = TextOrNull(record.new_pack_name);
    offer["version"] = record.new_version;
  }
  return offer;
}

// Why the update may not begin; empty when it may.
std::string UpdateRefusal(updater::PackStatus status) {
  if (updater::PackStatusHelper(nullptr).CanDoDownloadInstall(status)) {
    return "";
  }
  return std::string("the update is not permitted while the recorded status is ") + StatusText(status) + " (" +
         StatusMeaning(status) + ")";
}

void AddRecord(const StatusRecord& record, Json::Value& state) {
  state["status"] = StatusText(record.status);
  state["meaning"] = StatusMeaning(record.status);
  state["under_way"] = IsUnderWay(record.status);
  state["step"] = TextOrNull(record.install_step);
  state["progress"] = Progress(record);
  state["offer"] = Offer(record);
  state["why_no_update"] = TextOrNull(UpdateRefusal(record.status));
}

void AddNoRecord(const std::string& problem, Json::Value& state) {
  for (const char* member : {"status", "step", "progress", "offer"}) {
    state[member] = Json::nullValue;
  }
  state["meaning"] = "the record cannot be read";
  state["under_way"] = false;
  state["why_no_update"] = problem;
}

// A browser, too, shows texts from outside; the history of old runs holds such.
void MakePrintable(Json::Value& value) {
  if (value.isString()) {
    value = Printable(value.asString());
  }
  for (Json::Value& member : value) {
    MakePrintable(member);
  }
}

// All of it, from every source.
Json::Value LookAtAll(Context& context, const std::optional<StatusRecord>& record, const std::string& problem) {
  Json::Value state;
  Json::Value& problems = state["problems"] = Json::arrayValue;
  if (record) {
    AddRecord(*record, state);
  } else {
    AddNoRecord(problem, state);
    problems.append(problem);
  }
  state["steps"] = Steps();
  Json::Value info = AnswerOf(Info, context, problems);
  const Json::Value codecs = AnswerOf(Codecs, context, problems);
  if (info.isObject() && info["installed"].asBool()) {
    info.removeMember("installed");
    info["codecs"] = codecs.isObject() ? codecs["installed"] : Json::Value();
    state["installed"] = info;
  } else {
    state["installed"] = Json::nullValue;
  }
  state["requested"] = codecs.isObject() ? codecs["requested"] : Json::Value();
  const Json::Value history = AnswerOf(ShowHistory, context, problems);
  state["history"] = history.isObject() ? history["entries"] : Json::Value(Json::arrayValue);
  context.console.TakeHeld();
  return state;
}

}  // namespace

std::optional<int> HolderOf(const std::string& lock_path) {
  struct stat lock {};
  if (stat(lock_path.c_str(), &lock) != 0) {
    return std::nullopt;
  }
  // A line of the kernel's: "1: FLOCK  ADVISORY  WRITE 4711 fe:01:265 0 EOF"; that of a waiter has an arrow in it.
  std::array<char, 64> name{};
  static_cast<void>(std::snprintf(name.data(), name.size(), "%02x:%02x:%ju", major(lock.st_dev), minor(lock.st_dev),
                                  static_cast<std::uintmax_t>(lock.st_ino)));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string advisory;
    std::string access;
    std::string file;
    int holder = 0;
    words >> number >> kind >> advisory >> access >> holder >> file;
    if (kind == "FLOCK" && access == "WRITE" && file == name.data()) {
      return holder;
    }
  }
  return std::nullopt;
}

StateReader::StateReader(Context& context) : context_(context) { context_.options.limit = kShownEntries; }

Json::Value StateReader::Look() {
  std::optional<StatusRecord> record;
  std::string problem;
  try {
    record = ReadStatus();
  } catch (const std::exception& error) {
    problem = error.what();
  }
  const bool only_progress = record && record_ && record->status == record_->status &&
                             record->install_step == record_->install_step && record != record_;
  if (only_progress) {
    AddRecord(*record, state_);
  } else {
    state_ = LookAtAll(context_, record, problem);
  }
  record_ = record;
  MakePrintable(state_);
  state_["at_work"] = HolderOf(path::kPackctlLock).has_value();
  return state_;
}

WebState::WebState(Context& context, std::function<void()> changed)
    : changed_(std::move(changed)), reader_(context), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_.valid()) {
    tools::ThrowErrno("cannot watch the state");
  }
  watcher_ = std::thread([this] { Watch(); });
}

WebState::~WebState() {
  ended_ = true;
  LookAgain();
  watcher_.join();
}

Json::Value WebState::Latest() const {
  const std::lock_guard lock(mutex_);
  return latest_;
}

void WebState::LookAgain() const {
  // Fails only when it is asked for already, more often than a number can tell.
  static_cast<void>(eventfd_write(wake_.get(), 1));
}

void WebState::Watch() {
  // The end of somebody's work is not told of: the lock's file is closed before the lock is free.
  constexpr std::chrono::milliseconds kAtWork = std::chrono::seconds(1);
  constexpr std::chrono::milliseconds kIdle = std::chrono::minutes(1);
  FileWatch files({path::kPackStatusFile, path::kHistoryFile, path::kCodecRequirementsPath});
  Json::Value shown;
  while (!ended_) {
    Json::Value now = reader_.Look();
    if (now != shown) {
      shown = now;
      now["time"] = Json::Int64{std::time(nullptr)};
      {
        const std::lock_guard lock(mutex_);
        latest_ = std::move(now);
      }
      changed_();
    }
    const pollfd wake{.fd = wake_.get(), .events = POLLIN, .revents = 0};
    if (files.Wait(wake, shown["at_work"].asBool() ? kAtWork : kIdle) == FileWatch::Wake::kOther) {
      eventfd_t count = 0;
      static_cast<void>(eventfd_read(wake_.get(), &count));
    }
  }
}

}  // namespace orbamira::packctl
