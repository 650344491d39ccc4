#include "platform/removal.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "platform/posix/errors.h"
#include "platform/posix/file_status.h"
#include "platform/posix/remove_tree.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

bool IsPack(const fs::path& folder) {
  std::error_code error;
  return fs::is_directory(LinkStatusOf(folder, error)) && fs::is_regular_file(StatusOf(folder / "INFO", error));
}

// The older pack's removal may meet an error when the place is free already.
void KeepAsPrevious(const std::string& backup) {
  std::exception_ptr problem;
  try {
    RemoveAtOnce(path::kPreviousPackFolderPath);
  } catch (const std::exception&) {
    problem = std::current_exception();
  }
  if (std::rename(backup.c_str(), path::kPreviousPackFolderPath) != 0) {
    ThrowErrno(backup);
  }
  if (problem) {
    std::rethrow_exception(problem);
  }
}

}  // namespace

void RemoveForUpdater(const std::string& path) {
  if (path == path::kBackupPackFolderPath && IsPack(path)) {
    KeepAsPrevious(path);
    return;
  }
  if (path == path::kPackFolderPath) {
    RemoveAtOnce(path::kPreviousPackFolderPath);
  }
  RemoveAtOnce(path);
}

}  // namespace orbamira
