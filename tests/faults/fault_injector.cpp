// Runs a program with everything that it starts, numbers every system call by which they change files or make changes
// durable, and brings a fault about at one of them:
//
//   fault_injector [--record FILE] [--at N --fault kill|power|tear|EIO|ENOSPC] [--below FOLDER] [--reads FILE]
//   -- PROGRAM [ARGUMENT...]
//
// "kill" ends the whole family by SIGKILL in place of the call. "power" and "tear" do so too and then take from every
// file below FOLDER what was not synced. The others make the call fail with that error. The exit status is the
// program's own, 137 after a kill or a power cut, and 125 when the injector itself failed. FILE gets a line for every
// numbered call: number, process, system call, path. With --reads, calls that read that file are numbered too.
//
// What a power cut loses here is the worst that a journalling file system with delayed allocation does: of a file
// written since its last fsync, fdatasync, syncfs or sync nothing remains, whatever names it has by then, its earlier
// content included. A file that was overwritten since, without a change of its size, has its blocks already: after
// "power" it holds what was synced, after "tear" the first of its changed sectors is new and the others are old.
// Names, folders and modes are kept as they stand at the cut: a journal keeps their order, so a cut that loses the
// latest of them is the cut at an earlier call. Not covered: folders on different file systems whose journals reach
// the disk in another order, sectors written in part, data written through memory maps or O_SYNC.
//
// The calls are seen through ptrace behind a seccomp filter, so that only they stop the family.

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr int kExitKilled = 137;
constexpr int kExitInjectorFailed = 125;

// Where a call names the file that it changes: by a path or a descriptor in one of its arguments.
enum class Target { kPath, kPathAt, kDescriptor, kRead, kOpenedPath, kClonedTo, kEverything };

// What the call means for the data that a power cut loses.
enum class Effect { kNone, kWrites, kSyncsFile, kSyncsFileSystem, kSyncsAll };

struct Call {
  const char* name;
  Target target;
  int argument;  // index of the path or the descriptor
  Effect effect = Effect::kNone;
};

// Every call by which the updater and its programs could change a file or wait for the disk, and the one by which they
// read a file in whose reading a fault is brought about.
const std::map<long, Call> kCalls = {
    {SYS_openat, {"openat", Target::kOpenedPath, 1}},
    {SYS_open, {"open", Target::kOpenedPath, 0}},
    {SYS_creat, {"creat", Target::kPath, 0}},
    {SYS_read, {"read", Target::kRead, 0}},
    {SYS_write, {"write", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_pwrite64, {"pwrite64", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_writev, {"writev", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_pwritev, {"pwritev", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_sendfile, {"sendfile", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_copy_file_range, {"copy_file_range", Target::kDescriptor, 2, Effect::kWrites}},
    {SYS_ioctl, {"ioctl", Target::kClonedTo, 0, Effect::kWrites}},
    {SYS_fallocate, {"fallocate", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_ftruncate, {"ftruncate", Target::kDescriptor, 0, Effect::kWrites}},
    {SYS_truncate, {"truncate", Target::kPath, 0}},
    {SYS_fsync, {"fsync", Target::kDescriptor, 0, Effect::kSyncsFile}},
    {SYS_fdatasync, {"fdatasync", Target::kDescriptor, 0, Effect::kSyncsFile}},
    {SYS_syncfs, {"syncfs", Target::kDescriptor, 0, Effect::kSyncsFileSystem}},
    {SYS_sync, {"sync", Target::kEverything, 0, Effect::kSyncsAll}},
    {SYS_sync_file_range, {"sync_file_range", Target::kDescriptor, 0}},
    {SYS_rename, {"rename", Target::kPath, 1}},
    {SYS_renameat, {"renameat", Target::kPathAt, 3}},
    {SYS_renameat2, {"renameat2", Target::kPathAt, 3}},
    {SYS_unlink, {"unlink", Target::kPath, 0}},
    {SYS_unlinkat, {"unlinkat", Target::kPathAt, 1}},
    {SYS_rmdir, {"rmdir", Target::kPath, 0}},
    {SYS_mkdir, {"mkdir", Target::kPath, 0}},
    {SYS_mkdirat, {"mkdirat", Target::kPathAt, 1}},
    {SYS_link, {"link", Target::kPath, 1}},
    {SYS_linkat, {"linkat", Target::kPathAt, 3}},
    {SYS_symlink, {"symlink", Target::kPath, 1}},
    {SYS_symlinkat, {"symlinkat", Target::kPathAt, 2}},
    {SYS_chmod, {"chmod", Target::kPath, 0}},
    {SYS_fchmod, {"fchmod", Target::kDescriptor, 0}},
    {SYS_fchmodat, {"fchmodat", Target::kPathAt, 1}},
    {SYS_chown, {"chown", Target::kPath, 0}},
    {SYS_fchown, {"fchown", Target::kDescriptor, 0}},
    {SYS_fchownat, {"fchownat", Target::kPathAt, 1}},
    {SYS_utimensat, {"utimensat", Target::kPathAt, 1}},
};

struct Fault {
  long at = 0;        // number of the call; 0 for none
  int error = 0;      // what the call fails with; 0 kills
  std::string reads;  // the file whose reading is numbered too; empty for none
  std::string below;  // where files lose what was not synced; empty when none do
  bool tear = false;  // whether the first changed sector of a file is not lost
};

using FileId = std::pair<dev_t, ino_t>;

// The file that a call changes.
struct Changed {
  std::string path;
  FileId id = {};         // of a file named by a descriptor
  std::string link = {};  // that leads to it, whatever its name
};

[[noreturn]] void Fail(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

std::string ReadLink(const std::string& link) {
  std::array<char, PATH_MAX> text{};
  const ssize_t length = readlink(link.c_str(), text.data(), text.size());
  return length < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(length));
}

std::string ReadText(pid_t process, unsigned long address) {
  std::string text;
  if (address == 0) {
    return text;
  }
  std::ifstream memory("/proc/" + std::to_string(process) + "/mem", std::ios::binary);
  memory.seekg(static_cast<std::streamoff>(address));
  std::getline(memory, text, '\0');
  return text;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The files with data that no sync has reached yet, each with what it held before.
class UnsyncedFiles {
 public:
  void Note(Effect effect, const Changed& changed) {
    switch (effect) {
      case Effect::kNone:
        break;
      case Effect::kWrites:
        NoteWrite(changed);
        break;
      case Effect::kSyncsFile:
        files_.erase(changed.id);
        break;
      case Effect::kSyncsFileSystem:
        std::erase_if(files_, [&](const auto& file) { return file.first.first == changed.id.first; });
        break;
      case Effect::kSyncsAll:
        files_.clear();
        break;
    }
  }

  // From those that still have a name below the folder.
  void Lose(const std::filesystem::path& folder, bool tear) const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      struct stat status {};
      if (lstat(entry.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        continue;
      }
      if (const auto file = files_.find({status.st_dev, status.st_ino}); file != files_.end()) {
        const std::string left = Left(file->second, ReadFile(entry.path()), tear);
        if (!std::ofstream(entry.path(), std::ios::binary).write(left.data(), std::ssize(left)).flush()) {
          Fail("write");
        }
      }
    }
  }

 private:
  void NoteWrite(const Changed& changed) {
    // What is empty was made, or emptied, since: perhaps with the number of a file that is gone.
    if (!files_.contains(changed.id) || std::filesystem::file_size(changed.link) == 0) {
      files_[changed.id] = ReadFile(changed.link);
    }
  }

  static std::string Left(std::string before, const std::string& now, bool tear) {
    constexpr std::size_t kSectorSize = 512;
    if (before.size() != now.size()) {
      return "";
    }
    const auto changed = std::mismatch(before.begin(), before.end(), now.begin());
    if (tear && changed.first != before.end()) {
      const auto offset = static_cast<std::size_t>(changed.first - before.begin()) / kSectorSize * kSectorSize;
      before.replace(offset, kSectorSize, now, offset, kSectorSize);
    }
    return before;
  }

  std::map<FileId, std::string> files_;
};

class Family {
 public:
  Family(Fault fault, std::ostream* record) : fault_(std::move(fault)), record_(record) {}

  int Run(std::vector<char*> command) {
    leader_ = fork();
    if (leader_ < 0) {
      Fail("fork");
    }
    if (leader_ == 0) {
      Become(command);
    }
    int status = 0;
    if (waitpid(leader_, &status, 0) < 0 || !WIFSTOPPED(status)) {
      Fail("waitpid");
    }
    constexpr long kOptions = PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC |
                              PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
    if (ptrace(PTRACE_SETOPTIONS, leader_, nullptr, kOptions) != 0) {
      Fail("ptrace");
    }
    members_.insert(leader_);
    ptrace(PTRACE_CONT, leader_, nullptr, 0);
    const int result = Watch();
    if (killed_ && !fault_.below.empty()) {
      unsynced_.Lose(fault_.below, fault_.tear);
    }
    return result;
  }

 private:
  [[noreturn]] void Become(std::vector<char*>& command) const {
    setpgid(0, 0);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    static_cast<void>(raise(SIGSTOP));
    std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const auto& [number, call] : kCalls) {
      if (call.target == Target::kRead && fault_.reads.empty()) {
        continue;
      }
      filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(number), 0, 1));
      filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
    execv(command.front(), command.data());
    _exit(kExitInjectorFailed);
  }

  int Watch() {
    int result = kExitInjectorFailed;
    int status = 0;
    for (pid_t member = 0; (member = waitpid(-1, &status, __WALL)) > 0;) {
      if (WIFSTOPPED(status)) {
        members_.insert(member);
        if (killed_) {
          kill(member, SIGKILL);  // born at the moment of the kill
        }
        Stopped(member, status);
        continue;
      }
      members_.erase(member);
      if (member == leader_) {
        result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
    }
    return killed_ ? kExitKilled : result;
  }

  void Stopped(pid_t member, int status) {
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (event == PTRACE_EVENT_SECCOMP) {
      Entered(member);
    }
    // A new member stops first with SIGSTOP, which is ptrace's own; other signals are the family's business.
    const bool own = event != 0 || signal == SIGTRAP || signal == SIGSTOP;
    ptrace(PTRACE_CONT, member, nullptr, own ? 0L : static_cast<long>(signal));
  }

  void Entered(pid_t member) {
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, member, nullptr, &registers) != 0) {
      return;
    }
    const auto call = kCalls.find(static_cast<long>(registers.orig_rax));
    if (call == kCalls.end()) {
      return;
    }
    const std::optional<Changed> changed = ChangedFile(member, call->second, registers);
    if (!changed) {
      return;
    }
    ++count_;
    if (record_ != nullptr) {
      *record_ << count_ << ' ' << Name(member) << ' ' << call->second.name << ' ' << changed->path << '\n';
    }
    if (count_ == fault_.at) {
      BringAbout(member, registers);
    } else if (!killed_) {
      unsynced_.Note(call->second.effect, *changed);
    }
  }

  void BringAbout(pid_t member, user_regs_struct& registers) {
    registers.orig_rax = static_cast<unsigned long long>(-1L);
    registers.rax = static_cast<unsigned long long>(-static_cast<long>(fault_.error));
    ptrace(PTRACE_SETREGS, member, nullptr, &registers);
    if (fault_.error == 0) {
      killed_ = true;
      for (const pid_t other : members_) {
        kill(other, SIGKILL);
      }
      kill(-leader_, SIGKILL);
    }
  }

  // The file that the call would change, or read; none for a call that changes none: an open for reading, output to a
  // terminal.
  std::optional<Changed> ChangedFile(pid_t member, const Call& call, const user_regs_struct& registers) const {
    const std::array<unsigned long long, 6> arguments = {registers.rdi, registers.rsi, registers.rdx,
                                                         registers.r10, registers.r8,  registers.r9};
    const unsigned long long argument = arguments.at(static_cast<std::size_t>(call.argument));
    switch (call.target) {
      case Target::kClonedTo:
        if (arguments[1] != FICLONE && arguments[1] != FICLONERANGE) {
          return std::nullopt;
        }
        return OpenFile(member, argument);
      case Target::kDescriptor:
        return OpenFile(member, argument);
      case Target::kRead: {
        const std::optional<Changed> file = OpenFile(member, argument);
        return file && file->path == fault_.reads ? file : std::nullopt;
      }
      case Target::kOpenedPath: {
        const auto flags = static_cast<int>(arguments.at(static_cast<std::size_t>(call.argument) + 1));
        if ((flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) == 0) {
          return std::nullopt;
        }
        std::string path = ReadText(member, argument);
        struct stat status {};
        if (path.starts_with("/proc/") || (stat(path.c_str(), &status) == 0 && S_ISCHR(status.st_mode))) {
          return std::nullopt;
        }
        return Changed{std::move(path)};
      }
      case Target::kPath:
      case Target::kPathAt:
        return Changed{ReadText(member, argument)};
      case Target::kEverything:
        return Changed{"/"};
    }
    return std::nullopt;
  }

  // The file or folder behind a descriptor; none for anything else.
  static std::optional<Changed> OpenFile(pid_t member, unsigned long long descriptor) {
    const std::string link = "/proc/" + std::to_string(member) + "/fd/" + std::to_string(static_cast<int>(descriptor));
    struct stat status {};
    if (stat(link.c_str(), &status) != 0 || !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
      return std::nullopt;
    }
    return Changed{ReadLink(link), {status.st_dev, status.st_ino}, link};
  }

  static std::string Name(pid_t member) {
    std::ifstream file("/proc/" + std::to_string(member) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
  }

  Fault fault_;
  std::ostream* record_;
  pid_t leader_ = 0;
  std::set<pid_t> members_;
  UnsyncedFiles unsynced_;
  long count_ = 0;
  bool killed_ = false;
};

int Inject(int argc, char** argv) {
  CLI::App app{"Runs a program and brings a fault about at one of its file-changing system calls"};
  std::string record_path;
  std::string fault_name = "kill";
  std::vector<std::string> command;
  Fault fault;
  app.add_option("--record", record_path, "write a line for every numbered call to this file");
  app.add_option("--at", fault.at, "number of the call that the fault hits, from 1");
  app.add_option("--fault", fault_name, "what happens there")
      ->check(CLI::IsMember({"kill", "power", "tear", "EIO", "ENOSPC"}));
  app.add_option("--below", fault.below, "folder whose files lose what was not synced")->check(CLI::ExistingDirectory);
  app.add_option("--reads", fault.reads, "number the calls that read this file, too")->check(CLI::ExistingFile);
  app.add_option("command", command, "absolute path of the program, and its arguments")->required();
  CLI11_PARSE(app, argc, argv);
  if (fault_name == "EIO" || fault_name == "ENOSPC") {
    fault.error = fault_name == "EIO" ? EIO : ENOSPC;
  }
  fault.tear = fault_name == "tear";
  if ((fault.tear || fault_name == "power") == fault.below.empty()) {
    std::cerr << "fault_injector: a power cut, and nothing else, takes --below\n";
    return kExitInjectorFailed;
  }

  std::ofstream record;
  if (!record_path.empty()) {
    record.open(record_path);
  }
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  return Family(std::move(fault), record.is_open() ? &record : nullptr).Run(arguments);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Inject(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "fault_injector: " << error.what() << '\n';
    return kExitInjectorFailed;
  }
}
