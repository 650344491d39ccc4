#include "tools/packctl/web/actions.h"

#include <fcntl.h>
#include <json/reader.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

// What a command may say, and more; the rest is in the system log.
constexpr std::size_t kMaxSaid = 16UL * 1024;

// Files in memory, which take what is written even when we are gone.
struct Said {
  UniqueFd output;
  UniqueFd errors;
};

UniqueFd MakeFile() {
  UniqueFd file(memfd_create("packctl-web", MFD_CLOEXEC));
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

pid_t Spawn(const std::string& command, const Said& said) {
  // The program that we are, also after a newer one took its place.
  constexpr const char* kProgram = "/proc/self/exe";
  std::string name = "packctl";
  std::string argument = command;
  std::string json = "--json";
  const std::array<char*, 4> argv = {name.data(), argument.data(), json.data(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&files, said.output.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, said.errors.get(), STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, kProgram, &files, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "cannot start packctl");
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

Json::Value Started(const std::string& command) {
  Json::Value action;
  action["command"] = command;
  action["running"] = true;
  action["exit"] = action["result"] = Json::nullValue;
  action["problems"] = Json::arrayValue;
  return action;
}

}  // namespace

WebActions::WebActions(std::function<void()> changed) : changed_(std::move(changed)) {}

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
  const pid_t pid = Spawn(command, *said);
  const std::lock_guard lock(mutex_);
  waiter_ = std::thread([this, pid, said] {
    const int exit = ExitStatusOf(pid);
    {
      const std::lock_guard ended(mutex_);
      last_["running"] = false;
      last_["exit"] = exit;
      last_["result"] = ResultIn(TextOf(said->output));
      last_["problems"] = SentencesIn(TextOf(said->errors));
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
