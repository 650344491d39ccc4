#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "platform/posix/unique_fd.h"

namespace orbamira::tools {

/// Files that get their names in a folder together, when all of them are there, or go with the object. Until then each
/// has a name that nobody asks for, ".orba-archive.XXXXXXXX.N".
class StagedFiles {
 public:
  /// `folder` is open and outlives the object.
  explicit StagedFiles(int folder);
  ~StagedFiles();
  StagedFiles(const StagedFiles&) = delete;
  StagedFiles& operator=(const StagedFiles&) = delete;

  /// A new file, open for writing, that is to get this name. Throws std::system_error.
  [[nodiscard]] UniqueFd Add(const std::string& name, mode_t mode);

  /// Gives the files their names. Throws std::system_error, and no file is left, when one of them cannot get its own:
  /// nothing that exists is replaced.
  void Publish();

 private:
  [[nodiscard]] std::string StagedName(size_t index) const;

  int folder_;
  std::string prefix_;
  std::vector<std::string> names_;
  size_t published_ = 0;  // so many have their names
};

}  // namespace orbamira::tools
