#pragma once

#include <string>

#include "platform/posix/files.h"

namespace orbamira::tools {

/// A folder that gets its final name only when it is whole. It is created beside that name as ".NAME.partial.XXXXXX", a
/// name that recovery knows and removes, and renamed at the end. The destructor removes a folder that was not renamed,
/// with everything in it.
class PartialFolder {
 public:
  /// `target` is the final name; it must not exist, not even as a dangling symbolic link, and its parent must.
  /// Throws std::runtime_error or std::system_error.
  explicit PartialFolder(const std::string& target);
  ~PartialFolder();
  PartialFolder(const PartialFolder&) = delete;
  PartialFolder& operator=(const PartialFolder&) = delete;

  /// The open folder, for the caller to fill.
  [[nodiscard]] int get() const { return folder_.get(); }

  /// Gives the folder its final name and waits until the new name is on disk. Throws std::system_error; nothing then
  /// has the final name.
  void MoveIntoPlace();

 private:
  void CheckTargetIsFree() const;
  void Rename(const std::string& from, const std::string& to) const;

  std::string target_;
  std::string name_;     // the last part of target_
  std::string partial_;  // its temporary name in parent_; empty once it has its final name
  UniqueFd parent_;
  UniqueFd folder_;
};

}  // namespace orbamira::tools
