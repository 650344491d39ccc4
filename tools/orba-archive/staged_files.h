#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "platform/posix/unique_fd.h"

namespace orbamira::tools {

/// Files that get their final names in a folder together, when all of them are complete. Until then each has a
/// temporary name, ".orba-archive.XXXXXXXX.N". The destructor removes the files unless Publish() succeeded.
class StagedFiles {
 public:
  /// `folder` is open and outlives the object.
  explicit StagedFiles(int folder);
  ~StagedFiles();
  StagedFiles(const StagedFiles&) = delete;
  StagedFiles& operator=(const StagedFiles&) = delete;

  /// Creates a file that will get this name, and opens it for writing. Throws std::system_error.
  [[nodiscard]] UniqueFd Add(const std::string& name, mode_t mode);

  /// Gives the files their final names. Replaces nothing: when a name is taken, throws std::system_error, and the
  /// destructor removes all of the files.
  void Publish();

 private:
  [[nodiscard]] std::string StagedName(size_t index) const;

  int folder_;
  std::string prefix_;
  std::vector<std::string> names_;
  size_t published_ = 0;  // how many have their final names
};

}  // namespace orbamira::tools
