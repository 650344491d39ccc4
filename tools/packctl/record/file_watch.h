#pragma once

#include <poll.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/posix/unique_fd.h"

/// Changes of the files that packctl shows.
namespace orbamira::packctl {

/// Sleeps until one of a few files may have changed.
class FileWatch {
 public:
  enum class Wake { kLook, kOther };

  /// Watches the files, whether they exist or not.
  explicit FileWatch(const std::vector<std::string>& files);

  /// Returns kLook when a change was told of, or after `longest` without: a folder that is missing, put in place of a
  /// watched one or on another machine tells nothing. Returns kOther when `other` is ready first. Throws
  /// std::system_error.
  Wake Wait(pollfd other, std::chrono::milliseconds longest = std::chrono::minutes(1));

 private:
  struct Folder {
    std::string path;
    std::vector<std::string> names;
    int watch = -1;
  };

  void Watch();
  bool TakeEvents();
  [[nodiscard]] bool Concerns(int watch, const char* name) const;

  std::vector<Folder> folders_;
  UniqueFd fd_;
  bool watched_ = false;
};

}  // namespace orbamira::packctl
