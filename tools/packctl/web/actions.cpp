#include "tools/packctl/web/actions.h"

#include <fcntl.h>
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

#include "platform/json/json_object.h"
#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"
#include "platform/posix/unique_fd.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/record/history.h"

namespace orbamira::packctl {
namespace {

// What a command may say, and more; the rest is in the system log.
constexpr std::size_t kMaxSaid = 64UL * 1024;

// Files without a name, which take what is written even when we are gone.
struct Output {
  UniqueFd answer;
  UniqueFd errors;
};

UniqueFd MakeFile() {
  UniqueFd file = OpenUnnamedFile("packctl-web");
  if (!file.valid()) {
    ThrowErrno("cannot keep what a command says");
  }
  return file;
}

std::string TextOf(const UniqueFd& file) {
  std::string text(kMaxSaid, '\0');
  const ssize_t length = pread(file.get(), text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

pid_t Spawn(const char* program, const std::vector<std::string>& command, const Output& output) {
  std::vector<char*> argv;
  for (const std::string& word : command) {
    argv.push_back(const_cast<char*>(word.c_str()));  // NOLINT: posix_spawn does not write to it
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, output.answer.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, output.errors.get(), STDERR_FILENO);
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

std::vector<std::string> SentencesIn(const std::string& errors) {
  constexpr std::string_view kPrefix = "packctl: ";
  std::vector<std::string> sentences;
  std::istringstream lines(errors);
  for (std::string line; std::getline(lines, line);) {
    sentences.push_back(line.starts_with(kPrefix) ? line.substr(kPrefix.size()) : line);
  }
  return sentences;
}

// What the command printed with --json.
Json::Value AnswerIn(const Output& output) {
  return ParseJsonObject(TextOf(output.answer)).value_or(Json::objectValue);
}

WebAction EndOfProgram(const std::string& command, int exit, const Output& output) {
  WebAction ended{.command = command, .exit = exit, .problems = SentencesIn(TextOf(output.errors))};
  const Json::Value answer = AnswerIn(output);
  if (answer["result"].isString()) {
    ended.result = answer["result"].asString();
  }
  ended.failure = FailureFromJson(answer["error"]);
  return ended;
}

std::vector<HistoryEntry> Entries() {
  try {
    return ReadHistory().entries;
  } catch (const std::exception&) {
    return {};  // that the history cannot be read is among the problems of the state
  }
}

std::optional<HistoryEntry> NewestEntry() {
  const std::vector<HistoryEntry> entries = Entries();
  return entries.empty() ? std::nullopt : std::optional(entries.back());
}

// The entry since `before` of the unit's update, or of its check that failed. A check that found nothing leaves none.
std::optional<HistoryEntry> EntryOfUnit(const std::optional<HistoryEntry>& before) {
  const std::vector<HistoryEntry> entries = Entries();
  for (auto entry = entries.rbegin(); entry != entries.rend() && *entry != before; ++entry) {
    if (entry->command == "update" || (entry->command == "check" && entry->exit != kExitDone)) {
      return *entry;
    }
  }
  return std::nullopt;
}

// What the unit's packctl said is in the journal; how it ended, in the history.
WebAction EndOfUnit(const std::string& command, const std::optional<HistoryEntry>& before, int exit,
                    const Output& output) {
  if (const auto entry = EntryOfUnit(before)) {
    return {.command = command,
            .exit = entry->exit,
            .result = entry->result,
            .problems = entry->errors,
            .failure = entry->failure};
  }
  if (exit == 0) {
    return {.command = command, .exit = kExitNothingToDo, .result = "nothing_to_do"};
  }
  return EndOfProgram(command, exit, output);
}

}  // namespace

WebActions::WebActions(std::string update_unit, std::function<void()> changed)
    : update_unit_(std::move(update_unit)), changed_(std::move(changed)) {}

WebActions::~WebActions() {
  if (waiter_.joinable()) {
    waiter_.join();
  }
}

bool WebActions::Start(const PageAction& action) {
  if (const auto last = Last(); last && last->running) {
    return false;
  }
  if (waiter_.joinable()) {
    waiter_.join();
  }
  auto output = std::make_shared<const Output>(Output{MakeFile(), MakeFile()});
  const std::string command = action.name;
  const bool by_unit = command == "update" && !update_unit_.empty();
  const std::optional<HistoryEntry> before = NewestEntry();
  std::vector<std::string> line = {"packctl", "--json"};
  line.insert(line.end(), action.arguments.begin(), action.arguments.end());
  // The program that we are, also after a newer one took its place.
  const pid_t pid = by_unit ? Spawn("systemctl", {"systemctl", "start", update_unit_}, *output)
                            : Spawn("/proc/self/exe", line, *output);
  const std::lock_guard lock(mutex_);
  waiter_ = std::thread([this, pid, output, by_unit, before, command] {
    const int exit = ExitStatusOf(pid);
    WebAction ended = by_unit ? EndOfUnit(command, before, exit, *output) : EndOfProgram(command, exit, *output);
    {
      const std::lock_guard guard(mutex_);
      last_ = std::move(ended);
      if (const Json::Value findings = AnswerIn(*output)["findings"]; findings.isArray()) {
        diagnosis_ = Diagnosis{std::time(nullptr), findings};
      }
    }
    changed_();
  });
  last_ = WebAction{.command = command, .running = true};
  return true;
}

std::optional<WebAction> WebActions::Last() const {
  const std::lock_guard lock(mutex_);
  return last_;
}

std::optional<Diagnosis> WebActions::LastDiagnosis() const {
  const std::lock_guard lock(mutex_);
  return diagnosis_;
}

}  // namespace orbamira::packctl
