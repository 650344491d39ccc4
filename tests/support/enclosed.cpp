// Runs a test so that no process and no temporary file outlives it, however it ends.
//
// usage: enclosed [--memory] [--patience SECONDS] COMMAND [ARGUMENT...]
//
// Whatever the command starts, in any session or process group, stays a descendant of this program, which ends what is
// left when the command ends, when its own parent ends, and when it is stopped by a signal. It ends as the command
// does; a command that succeeds and leaves processes behind fails, unless they end by themselves within SECONDS (30).
// TMPDIR is a folder of the command's own, which is removed with all that it holds. With --memory it is in memory,
// where programs can be run there. The command begins with no signal ignored or blocked, as from a terminal: nohup and
// shells ignore some for what they start in the background.

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr int kUsageError = 64;
constexpr int kNotStarted = 127;
constexpr int kSignalBase = 128;
constexpr seconds kPatience{30};
/// What is killed ends soon, unless it belongs to another user.
constexpr seconds kUntilKilled{10};

std::string Read(const std::string& path) {
  const std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();  // unlike an iterator, it throws nothing when the process ends meanwhile
  return std::move(text).str();
}

std::string CommandLine(pid_t process) {
  std::string text = Read("/proc/" + std::to_string(process) + "/cmdline");
  std::replace(text.begin(), text.end(), '\0', ' ');
  return text;
}

/// The parent of a process; 0 when there is no such process.
pid_t ParentOf(pid_t process) {
  const std::string text = Read("/proc/" + std::to_string(process) + "/stat");
  // "pid (name) state parent ...", where the name may hold anything.
  const size_t end = text.rfind(')');
  return end == std::string::npos || end + 4 >= text.size() ? 0 : std::atoi(text.c_str() + end + 4);
}

std::vector<pid_t> Children() {
  std::vector<pid_t> children;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    const pid_t process = std::atoi(entry->d_name);
    if (process > 0 && ParentOf(process) == getpid()) {
      children.push_back(process);
    }
  }
  return children;
}

/// Where temporary files are made: in memory if that is wanted and possible.
fs::path TemporaryFiles(bool memory) {
  constexpr const char* kMemory = "/dev/shm";
  struct statvfs status {};
  const bool usable =
      memory && access(kMemory, W_OK | X_OK) == 0 && statvfs(kMemory, &status) == 0 && (status.f_flag & ST_NOEXEC) == 0;
  return usable ? kMemory : fs::temp_directory_path();
}

/// The folder for temporary files of the command and everything that it starts.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const fs::path& place) {
    std::string pattern = (place / "enclosed-XXXXXX").string();
    // Others may pass: a test may do things as another user.
    if (mkdtemp(pattern.data()) == nullptr || chmod(pattern.c_str(), 0711) != 0 ||
        setenv("TMPDIR", pattern.c_str(), 1) != 0) {
      throw std::runtime_error("cannot make " + pattern);
    }
    path_ = pattern;
  }
  ~TemporaryFolder() {
    Open(path_);
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

 private:
  /// A test may have left folders that their owner may not change.
  static void Open(const fs::path& folder) {
    std::error_code ignored;
    fs::permissions(folder, fs::perms::owner_all, ignored);
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
      if (entry.symlink_status(ignored).type() == fs::file_type::directory) {
        Open(entry.path());
      }
    }
  }

  fs::path path_;
};

void IgnoreAndBlockNoSignal() {
  for (int number = 1; number <= SIGRTMAX; ++number) {
    signal(number, SIG_DFL);  // refused for SIGKILL and SIGSTOP, which nobody ignores
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// A command and everything that it starts.
class Enclosure {
 public:
  explicit Enclosure(char** command) {
    sigemptyset(&signals_);
    for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
      sigaddset(&signals_, number);
    }
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
    signal(SIGCHLD, SIG_DFL);  // while it is ignored, nobody learns how a child ended
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const pid_t self = getpid();
    command_ = fork();
    if (command_ == 0) {
      IgnoreAndBlockNoSignal();
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() == self) {
        execvp(command[0], command);
        std::cerr << "enclosed: " << command[0] << " cannot be started\n";
      }
      _exit(kNotStarted);
    }
  }

  /// Waits for the end of the command, or for a signal that ends us. Returns the exit status that stands for it.
  int Wait() {
    while (Reap() && !status_) {
      const int number = sigwaitinfo(&signals_, nullptr);
      if (number > 0 && number != SIGCHLD) {
        return kSignalBase + number;
      }
    }
    if (!status_) {
      return kNotStarted;
    }
    return WIFEXITED(*status_) ? WEXITSTATUS(*status_) : kSignalBase + WTERMSIG(*status_);
  }

  /// Whether everything ends by itself within this time, and before a signal ends us.
  bool Empties(seconds limit) {
    const auto end = Clock::now() + limit;
    while (Reap()) {
      if (Clock::now() >= end || Pause()) {
        return false;
      }
    }
    return true;
  }

  void Kill() {
    const auto end = Clock::now() + kUntilKilled;
    while (Reap() && Clock::now() < end) {
      // Orphans of the processes that we kill become our children.
      for (const pid_t child : Children()) {
        kill(child, SIGKILL);
      }
      Pause();
    }
  }

 private:
  /// Takes note of all that ended. Whether anything is still there.
  bool Reap() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-1, &status, WNOHANG)) > 0) {
      if (ended == command_) {
        status_ = status;
      }
    }
    return ended == 0;
  }

  /// Until a child ends, but not for long: another one may have become ours. Whether a signal ends us.
  bool Pause() const {
    constexpr timespec kPause = {0, 50'000'000};
    const int number = sigtimedwait(&signals_, nullptr, &kPause);
    return number > 0 && number != SIGCHLD;
  }

  sigset_t signals_ = {};
  pid_t command_ = 0;
  std::optional<int> status_;
};

}  // namespace

int main(int argc, char** argv) {
  seconds patience = kPatience;
  char** command = argv + 1;
  const bool memory = argc > 1 && std::string_view(*command) == "--memory";
  if (memory) {
    ++command;
  }
  if (command + 1 < argv + argc && std::string_view(*command) == "--patience") {
    patience = seconds(std::atoi(command[1]));
    command += 2;
  }
  if (command >= argv + argc) {
    std::cerr << "usage: enclosed [--memory] [--patience SECONDS] COMMAND [ARGUMENT...]\n";
    return kUsageError;
  }
  const TemporaryFolder temporary(TemporaryFiles(memory));
  Enclosure enclosure(command);
  int status = enclosure.Wait();
  if (status == 0 && !enclosure.Empties(patience)) {
    for (const pid_t child : Children()) {
      std::cerr << "enclosed: left behind: " << child << " " << CommandLine(child) << "\n";
    }
    status = EXIT_FAILURE;
  }
  enclosure.Kill();
  return status;
}
