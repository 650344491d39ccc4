#include "tools/packctl/record/answered_check.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/constants.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {

void NoteAnsweredCheck() {
  constexpr mode_t kMode = 0644;
  const auto file = std::filesystem::path(kDownloadFolder).parent_path() / "checked";
  const UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode));
  if (fd.valid()) {
    static_cast<void>(futimens(fd.get(), nullptr));
  }
}

}  // namespace orbamira::packctl
