#pragma once

#include <functional>
#include <string>
#include <vector>

namespace orbamira::test {

/// What this process tells the system to bring to the disk, in order, while an object of this class lives: "sync NAME",
/// "sync data of NAME", "sync all with NAME" for a file system, "rename NAME to NAME". NAME is the last part of a path;
/// what makes it unique shows as "XXXXXX". One object at a time, and no other threads.
class DiskCalls {
 public:
  DiskCalls();
  ~DiskCalls();
  DiskCalls(const DiskCalls&) = delete;
  DiskCalls& operator=(const DiskCalls&) = delete;

  /// Adds something else that happens, to tell what comes before and after it.
  void Note(const std::string& event);

  /// What another process does at the worst moment: just before this one renames something, once.
  void BeforeRename(std::function<void()> action);

  /// For the functions that stand before the C library's.
  void NoteRename(const std::string& from, const std::string& to);

  [[nodiscard]] const std::vector<std::string>& all() const { return calls_; }

 private:
  std::vector<std::string> calls_;
  std::function<void()> before_rename_;
};

}  // namespace orbamira::test
