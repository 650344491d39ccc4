#include "tools/packctl/record/file_watch.h"

#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/posix/files.h"

namespace orbamira::packctl {

FileWatch::FileWatch(const std::vector<std::string>& files) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  for (const std::filesystem::path file : files) {
    const std::string path = file.parent_path();
    auto folder =
        std::find_if(folders_.begin(), folders_.end(), [&](const Folder& known) { return known.path == path; });
    if (folder == folders_.end()) {
      folder = folders_.insert(folder, Folder{.path = path, .names = {}});
    }
    folder->names.push_back(file.filename());
  }
  Watch();
}

FileWatch::Wake FileWatch::Wait(pollfd other, std::chrono::milliseconds longest) {
  constexpr std::chrono::milliseconds kUnwatched{1000};
  while (true) {
    std::array<pollfd, 2> waited{{other, {.fd = fd_.get(), .events = POLLIN, .revents = 0}}};
    const auto limit = watched_ ? longest : std::min(longest, kUnwatched);
    const int ready = poll(waited.data(), waited.size(), static_cast<int>(limit.count()));
    if (ready < 0 && errno != EINTR) {
      ThrowErrno("cannot wait for changes of files");
    }
    if (ready > 0 && waited[0].revents != 0) {
      return Wake::kOther;
    }
    if (!watched_) {
      Watch();
    }
    if (ready == 0 || TakeEvents()) {
      return Wake::kLook;
    }
  }
}

void FileWatch::Watch() {
  watched_ = true;
  for (Folder& folder : folders_) {
    folder.watch = inotify_add_watch(fd_.get(), folder.path.c_str(),
                                     IN_MOVED_TO | IN_MOVED_FROM | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE |
                                         IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    watched_ = watched_ && folder.watch >= 0;
  }
}

/// Whether what happened since the last call may concern one of the files.
bool FileWatch::TakeEvents() {
  alignas(inotify_event) std::array<char, 4096> buffer{};
  bool concerned = false;
  for (ssize_t length = 0; (length = read(fd_.get(), buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < length;) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char* const file = buffer.data() + at + sizeof event;
      if ((event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) {
        Watch();
      }
      concerned = concerned || event.len == 0 || Concerns(event.wd, file);
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
  return concerned;
}

bool FileWatch::Concerns(int watch, const char* name) const {
  return std::any_of(folders_.begin(), folders_.end(), [&](const Folder& folder) {
    return folder.watch == watch && std::find(folder.names.begin(), folder.names.end(), name) != folder.names.end();
  });
}

}  // namespace orbamira::packctl
