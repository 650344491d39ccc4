#include "tools/packctl/cli/pager.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

// What the shell ends with when it cannot run a command.
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

// Ignores what the keyboard sends to the pager, and so to us too.
class IgnoredKeys {
 public:
  IgnoredKeys() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &interrupt_);
    sigaction(SIGQUIT, &ignore, &quit_);
  }
  ~IgnoredKeys() {
    sigaction(SIGINT, &interrupt_, nullptr);
    sigaction(SIGQUIT, &quit_, nullptr);
  }
  IgnoredKeys(const IgnoredKeys&) = delete;
  IgnoredKeys& operator=(const IgnoredKeys&) = delete;

 private:
  struct sigaction interrupt_ {};
  struct sigaction quit_ {};
};

// The words to start; none if the user wants no pager.
std::vector<std::string> PagerCommand() {
  const char* const pager = std::getenv("PAGER");
  if (pager == nullptr) {
    return {"less"};
  }
  return *pager == '\0' ? std::vector<std::string>() : std::vector<std::string>{"/bin/sh", "-c", pager};
}

bool CanPage(const Console& console) {
  const char* const kind = std::getenv("TERM");
  return console.IsTerminal() && kind != nullptr && std::string_view(kind) != "dumb";
}

std::vector<std::string> Environment() {
  constexpr std::string_view kSecure = "LESSSECURE=";
  std::vector<std::string> variables = {std::string(kSecure) + "1"};
  if (std::getenv("LESS") == nullptr) {
    variables.emplace_back("LESS=FRX");
  }
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (!std::string_view(*variable).starts_with(kSecure)) {
      variables.emplace_back(*variable);
    }
  }
  return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// A program's number; -1 if it cannot be started.
pid_t Start(std::vector<std::string> command, int input, int output) {
  std::vector<std::string> environment = Environment();
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
  sigset_t usual;
  sigemptyset(&usual);
  for (const int signal_number : {SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ}) {
    sigaddset(&usual, signal_number);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, command.front().c_str(), &files, &attributes, Pointers(command).data(),
                                 Pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return error == 0 ? pid : -1;
}

}  // namespace

bool ShowInPager(const Console& console, const std::string& text) try {
  const std::vector<std::string> command = PagerCommand();
  if (command.empty() || !CanPage(console)) {
    return false;
  }
  // A file, so that a pager that ends early leaves nobody behind who writes to it.
  const UniqueFd file = OpenUnnamedFile("packctl-pager");
  if (!file.valid()) {
    return false;
  }
  WriteFully(file.get(), text.data(), text.size(), "a pager's text");
  lseek(file.get(), 0, SEEK_SET);
  const IgnoredKeys keys;
  const pid_t pid = Start(command, file.get(), console.output());
  int status = 0;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid > 0 && !(WIFEXITED(status) && (WEXITSTATUS(status) == kCannotRun || WEXITSTATUS(status) == kNotFound));
} catch (const std::system_error&) {
  return false;
}

}  // namespace orbamira::packctl
