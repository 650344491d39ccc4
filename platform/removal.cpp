#include "platform/removal.h"

#include <fcntl.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <system_error>

#include "platform/constants.h"
#include "platform/posix/errors.h"
#include "platform/posix/file_status.h"
#include "platform/posix/remove_tree.h"
#include "platform/posix/sync_folder.h"
#include "platform/posix/unique_fd.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

bool IsPack(const fs::path& folder) {
  std::error_code error;
  return fs::is_directory(LinkStatusOf(folder, error)) && fs::is_regular_file(StatusOf(folder / "INFO", error));
}

// The text of the pack's INFO; empty when it cannot be read.
std::optional<std::string> InfoOf(const fs::path& pack) {
  constexpr std::size_t kLongest = 65536;
  const UniqueFd file = OpenFile((pack / "INFO").string(), O_RDONLY);
  return file.valid() ? ReadUpTo(file.get(), kLongest) : std::nullopt;
}

// The same pack was installed once more; going back to it would be no way back.
bool IsInstalledAgain(const fs::path& backup) {
  const std::optional<std::string> info = InfoOf(path::kPackFolderPath);
  return info && info == InfoOf(backup);
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
  if (path == path::kBackupPackFolderPath && IsPack(path) && !IsInstalledAgain(path)) {
    KeepAsPrevious(path);
    return;
  }
  if (path != path::kPackFolderPath) {
    RemoveAtOnce(path);
    return;
  }
  RemoveAtOnce(path::kPreviousPackFolderPath);
  if (fs::exists(LinkStatusOf(path))) {
    RemoveAtOnce(path);
    SyncFolderOf(path);
  }
}

}  // namespace orbamira
