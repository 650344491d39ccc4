#include "tools/packctl/web/actions.h"

#include <fcntl.h>
#include <json/reader.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"
#include "platform/posix/unique_fd.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/record/history.h"

namespace orbamira::packctl {
namespace {

// What a command may say, and more; the rest is in the system log.
constexpr std::size_t kMaxSaid = 16UL * 1024;

// Files without a name, which take what is written even when we are gone.
struct Said {
  UniqueFd output;
  UniqueFd errors;
};

UniqueFd MakeFile() {
  UniqueFd file = OpenUnnamedFile("packctl-web");
  if (!file.valid()) {
    tools::ThrowErrno("cannot keep what a command says");
  }
  return file;
}

std::string TextOf(const UniqueFd& file) {
  std::string text(kMaxSaid, '\0');
  const ssize_t length = pread(file.get(), text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

pid_t Spawn(const char* program, const std::vector<std::string>& command, const Said& said) {
  std::vector<char*> argv;
  for (const std::string& word : command) {
    argv.push_back(const_cast<char*>(word.c_str()));  // NOLINT: posix_spawn does not write to it
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, said.output.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, said.errors.get(), STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, program, &files, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "cannot start " + command.front());
  }
  return pid;
}

int ExitStatusOf(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Json::Value ResultIn(const std::string& output) {
  Json::Value answer;
  std::istringstream stream(output);
  const bool parsed = Json::parseFromStream(Json::CharReaderBuilder(), stream, &answer, nullptr);
  return parsed && answer.isObject() ? answer["result"] : Json::Value();
}

Json::Value SentencesIn(const std::string& errors) {
  constexpr std::string_view kPrefix = "packctl: ";
  Json::Value sentences = Json::arrayValue;
  std::istringstream lines(errors);
  for (std::string line; std::getline(lines, line);) {
    sentences.append(line.starts_with(kPrefix) ? line.substr(kPrefix.size()) : line);
  }
  return sentences;
}

void TellEndOfProgram(int exit, const Said& said, Json::Value& action) {
  action["exit"] = exit;
  action["result"] = ResultIn(TextOf(said.output));
  action["problems"] = SentencesIn(TextOf(said.errors));
}

std::vector<HistoryEntry> Entries() {
  try {
    return ReadHistory().entries;
  } catch (const std::exception&) {
    return {};  // that the history cannot be read is among the problems of the state
  }
}

// The newest entry; null without one.
Json::Value NewestEntry() {
  const std::vector<HistoryEntry> entries = Entries();
  return entries.empty() ? Json::Value() : entries.back().ToJson();
}

// The entry since `before` of the unit's update, or of its check that failed. A check that found nothing leaves none.
std::optional<HistoryEntry> EntryOfUnit(const Json::Value& before) {
  const std::vector<HistoryEntry> entries = Entries();
  for (auto entry = entries.rbegin(); entry != entries.rend() && entry->ToJson() != before; ++entry) {
    if (entry->command == "update" || (entry->command == "check" && entry->exit != kExitDone)) {
      return *entry;
    }
  }
  return std::nullopt;
}

// What the unit's packctl said is in the journal; how it ended, in the history.
void TellEndOfUnit(const Json::Value& before, int exit, const Said& said, Json::Value& action) {
  if (const auto entry = EntryOfUnit(before)) {
    action["exit"] = entry->exit;
    action["result"] = entry->result;
    for (const std::string& error : entry->errors) {
      action["problems"].append(error);
    }
  } else if (exit == 0) {
    action["exit"] = static_cast<int>(kExitNothingToDo);
    action["result"] = "nothing_to_do";
  } else {
    TellEndOfProgram(exit, said, action);
  }
}

Json::Value Started(const std::string& command) {
  Json::Value action;
  action["command"] = command;
  action["running"] = true;
  action["exit"] = action["result"] = Json::nullValue;
  action["problems"] = Json::arrayValue;
  return action;
}

}  // namespace

WebActions::WebActions(std::string update_unit, std::function<void()> changed)
    : update_unit_(std::move(update_unit)), changed_(std::move(changed)) {}

WebActions::~WebActions() {
  if (waiter_.joinable()) {
    waiter_.join();
  }
}

bool WebActions::Start(const std::string& command) {
  if (Last()["running"].asBool()) {
    return false;
  }
  if (waiter_.joinable()) {
    waiter_.join();
  }
  auto said = std::make_shared<const Said>(Said{MakeFile(), MakeFile()});
  const bool by_unit = command == "update" && !update_unit_.empty();
  const Json::Value before = NewestEntry();
  // The program that we are, also after a newer one took its place.
  const pid_t pid = by_unit ? Spawn("systemctl", {"systemctl", "start", update_unit_}, *said)
                            : Spawn("/proc/self/exe", {"packctl", command, "--json"}, *said);
  const std::lock_guard lock(mutex_);
  waiter_ = std::thread([this, pid, said, by_unit, before, action = Started(command)]() mutable {
    const int exit = ExitStatusOf(pid);
    action["running"] = false;
    if (by_unit) {
      TellEndOfUnit(before, exit, *said, action);
    } else {
      TellEndOfProgram(exit, *said, action);
    }
    {
      const std::lock_guard ended(mutex_);
      last_ = std::move(action);
    }
    changed_();
  });
  last_ = Started(command);
  return true;
}

Json::Value WebActions::Last() const {
  const std::lock_guard lock(mutex_);
  return last_;
}

}  // namespace orbamira::packctl
