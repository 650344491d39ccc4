#include "tests/support/disk_calls.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <utility>

namespace orbamira::test {
namespace {

DiskCalls* observer = nullptr;

std::string NameOf(const std::filesystem::path& path) {
  static const std::regex unique_end("\\.(?!backup$|broken$)[A-Za-z0-9]{6}$");
  return std::regex_replace(path.filename().string(), unique_end, ".XXXXXX");
}

void NoteSync(const char* what, int fd) {
  if (observer != nullptr) {
    observer->Note(what + NameOf(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd))));
  }
}

void NoteRename(const char* from, const char* to) {
  if (observer != nullptr) {
    observer->NoteRename(from, to);
  }
}

}  // namespace

DiskCalls::DiskCalls() { observer = this; }

DiskCalls::~DiskCalls() { observer = nullptr; }

void DiskCalls::Note(const std::string& event) { calls_.push_back(event); }

void DiskCalls::BeforeRename(std::function<void()> action) { before_rename_ = std::move(action); }

void DiskCalls::NoteRename(const std::string& from, const std::string& to) {
  if (const auto action = std::exchange(before_rename_, nullptr)) {
    action();
  }
  Note("rename " + NameOf(from) + " to " + NameOf(to));
}

}  // namespace orbamira::test

// In place of the C library's.
extern "C" {

[[gnu::visibility("default")]] int fsync(int fd) {
  orbamira::test::NoteSync("sync ", fd);
  return static_cast<int>(syscall(SYS_fsync, fd));
}

[[gnu::visibility("default")]] int fdatasync(int fd) {
  orbamira::test::NoteSync("sync data of ", fd);
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

[[gnu::visibility("default")]] int syncfs(int fd) noexcept {
  orbamira::test::NoteSync("sync all with ", fd);
  return static_cast<int>(syscall(SYS_syncfs, fd));
}

[[gnu::visibility("default")]] int rename(const char* from, const char* to) noexcept {
  orbamira::test::NoteRename(from, to);
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

[[gnu::visibility("default")]] int renameat2(int from_folder, const char* from, int to_folder, const char* to,
                                             unsigned flags) noexcept {
  orbamira::test::NoteRename(from, to);
  return static_cast<int>(syscall(SYS_renameat2, from_folder, from, to_folder, to, flags));
}

}  // extern "C"
