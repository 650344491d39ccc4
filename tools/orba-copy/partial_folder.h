#pragma once

#include <string>

#include "platform/posix/files.h"

namespace orbamira::tools {

/// A folder that nobody sees under its final name before it is whole: it is made beside that name as
/// ".NAME.partial.XXXXXX", a pattern that recovery after a crash knows and removes, and moved into place at the end.
/// One that was not moved goes with the object, and all it holds with it.
class PartialFolder {
 public:
  /// `target` is the final name; it must not exist, not even as a dangling symbolic link, and its parent must.
  /// Throws std::runtime_error or std::system_error.
  explicit PartialFolder(const std::string& target);
  ~PartialFolder();
  PartialFolder(const PartialFolder&) = delete;
  PartialFolder& operator=(const PartialFolder&) = delete;

  /// The open folder, to be filled.
  [[nodiscard]] int get() const { return folder_.get(); }

  /// Moves the folder into place and waits until that is on disk. When it throws, nothing has the final name.
  /// Throws std::runtime_error or std::system_error.
  void MoveIntoPlace();

 private:
  void CheckTargetIsFree() const;
  void Rename(const std::string& from, const std::string& to) const;

  std::string target_;
  std::string name_;     // the last part of target_
  std::string partial_;  // what the folder is called in parent_ meanwhile; empty once it has its final name
  UniqueFd parent_;
  UniqueFd folder_;
};

}  // namespace orbamira::tools
