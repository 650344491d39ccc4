#include "tools/packctl/record/answered_check.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/constants.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

std::string NoteFile() { return std::filesystem::path(kDownloadFolder).parent_path() / "checked"; }

}  // namespace

void NoteAnsweredCheck() {
  constexpr mode_t kMode = 0644;
  const UniqueFd fd(open(NoteFile().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode));
  if (fd.valid()) {
    static_cast<void>(futimens(fd.get(), nullptr));
  }
}

std::optional<std::time_t> LastAnsweredCheck() {
  struct stat about {};
  return stat(NoteFile().c_str(), &about) == 0 ? std::optional(about.st_mtime) : std::nullopt;
}

}  // namespace orbamira::packctl
