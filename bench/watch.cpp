// Runs a program and writes down what it and every process that it starts took:
//
//   watch --report FILE -- PROGRAM [ARGUMENT...]
//
// FILE becomes a JSON object. For the whole family it has "wall" and "cpu" in seconds, "dirtied" (bytes written into
// the page cache for the disk) and "dropped" (bytes of those that were deleted before they got there), and it has
// "processes", with for each of them "command", "forked" (it never executed a program of its own), "begin" and "end" in
// seconds since the start, "cpu" of its own and "peak_kib" (resident memory at its most). The exit status is the
// program's own.
//
// The family is watched through ptrace, which stops it only where a process begins, executes a program or ends: at its
// end everything that the kernel has counted for it can still be read. The peak of a process that the kernel keeps for
// wait4(2) would not do: it includes the memory of the process that it was forked from.

#include <CLI/CLI.hpp>
#include <json/json.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr int kExitNotStarted = 127;

using Clock = std::chrono::steady_clock;

[[noreturn]] void Fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

std::string ProcPath(pid_t process, const char* file) { return "/proc/" + std::to_string(process) + "/" + file; }

// The number behind `key` in one of the files that the kernel keeps for a process.
Json::Int64 NumberOf(pid_t process, const char* file, const std::string& key) {
  std::ifstream lines(ProcPath(process, file));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key)) {
      return std::stoll(line.substr(key.size()));
    }
  }
  throw std::runtime_error("no " + key + " in " + ProcPath(process, file));
}

Json::Value CommandOf(pid_t process) {
  std::ifstream file(ProcPath(process, "cmdline"), std::ios::binary);
  Json::Value command(Json::arrayValue);
  for (std::string word; std::getline(file, word, '\0');) {
    command.append(word);
  }
  return command;
}

double CpuOf(pid_t process) {
  clockid_t clock = 0;
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    Fail("cannot read the processor time of a process");
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

class Family {
 public:
  int Run(std::vector<char*> command) {
    begin_ = Clock::now();
    leader_ = fork();
    if (leader_ < 0) {
      Fail("cannot fork");
    }
    if (leader_ == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      static_cast<void>(raise(SIGSTOP));
      execvp(command.front(), command.data());
      _exit(kExitNotStarted);
    }
    int status = 0;
    if (waitpid(leader_, &status, 0) < 0 || !WIFSTOPPED(status)) {
      Fail("cannot wait for the program");
    }
    constexpr long kOptions = PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC |
                              PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL;
    if (ptrace(PTRACE_SETOPTIONS, leader_, nullptr, kOptions) != 0) {
      Fail("cannot trace the program");
    }
    Enter(leader_);
    ptrace(PTRACE_CONT, leader_, nullptr, 0);
    return Watch();
  }

  [[nodiscard]] Json::Value Report() const {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    Json::Value report;
    report["wall"] = wall_;
    report["cpu"] = Seconds(used.ru_utime) + Seconds(used.ru_stime);
    report["dirtied"] = dirtied_;
    report["dropped"] = dropped_;
    report["processes"] = processes_;
    return report;
  }

 private:
  int Watch() {
    int result = kExitNotStarted;
    while (!members_.empty()) {
      int status = 0;
      const pid_t member = waitpid(-1, &status, __WALL);
      if (member < 0) {
        Fail("cannot wait for the family");
      }
      if (WIFSTOPPED(status)) {
        Stopped(member, status);
        continue;
      }
      members_.erase(member);
      if (member == leader_) {
        wall_ = Elapsed();
        result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return result;
  }

  void Stopped(pid_t member, int status) {
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    // A new member stops first with SIGSTOP, which is ptrace's own; later ones are the family's business.
    const bool newcomer = Enter(member);
    if (event == PTRACE_EVENT_EXEC) {
      members_[member].forked = false;
    } else if (event == PTRACE_EVENT_EXIT) {
      Leave(member);
    }
    const bool own = event != 0 || signal == SIGTRAP || (newcomer && signal == SIGSTOP);
    ptrace(PTRACE_CONT, member, nullptr, own ? 0L : static_cast<long>(signal));
  }

  bool Enter(pid_t member) { return members_.try_emplace(member, Member{Elapsed(), true}).second; }

  void Leave(pid_t member) {
    if (NumberOf(member, "status", "Tgid:") != member) {
      return;  // a thread
    }
    Json::Value process;
    process["command"] = CommandOf(member);
    process["forked"] = members_[member].forked;
    process["begin"] = members_[member].begin;
    process["end"] = Elapsed();
    process["cpu"] = CpuOf(member);
    process["peak_kib"] = NumberOf(member, "status", "VmHWM:");
    processes_.append(process);
    if (member == leader_) {  // what the kernel counts here includes the children that were waited for
      dirtied_ = NumberOf(member, "io", "write_bytes:");
      dropped_ = NumberOf(member, "io", "cancelled_write_bytes:");
    }
  }

  [[nodiscard]] double Elapsed() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

  struct Member {
    double begin;
    bool forked;
  };

  Clock::time_point begin_;
  double wall_ = 0;
  Json::Int64 dirtied_ = 0;
  Json::Int64 dropped_ = 0;
  pid_t leader_ = 0;
  std::map<pid_t, Member> members_;
  Json::Value processes_ = Json::arrayValue;
};

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Runs a program and writes down what it and every process that it starts took.", "watch");
  std::string report;
  std::vector<std::string> program;
  app.add_option("--report", report, "JSON file to write")->required();
  app.add_option("program", program, "the program and its arguments, behind --")->required();
  CLI11_PARSE(app, argc, argv);

  std::vector<char*> command;
  command.reserve(program.size() + 1);
  for (std::string& word : program) {
    command.push_back(word.data());
  }
  command.push_back(nullptr);
  Family family;
  const int result = family.Run(std::move(command));
  std::ofstream file(report);
  Json::StreamWriterBuilder one_line;
  one_line["indentation"] = "";
  file << Json::writeString(one_line, family.Report()) << '\n';
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + report);
  }
  return result;
} catch (const std::exception& error) {
  std::cerr << "watch: " << error.what() << '\n';
  return kExitNotStarted;
}
