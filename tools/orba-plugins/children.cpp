#include "tools/orba-plugins/children.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::plugins {
namespace {

constexpr std::chrono::seconds kGrace{2};

/// The number at the beginning of the text; 0 when there is none.
pid_t Number(std::string_view text) {
  pid_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

/// The parent of the process with this folder in /proc; 0 when the process is gone.
pid_t ParentOf(const std::string& folder) {
  constexpr std::size_t kEnough = 4096;
  const UniqueFd file = OpenFile(folder + "/stat", O_RDONLY);
  const std::string text = file.valid() ? ReadUpTo(file.get(), kEnough).value_or("") : "";
  // "1 (name) S 2 ...", where the name may contain anything.
  constexpr std::string_view kAfterName = ") S ";
  const std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos || text.size() < name_end + kAfterName.size()) {
    return 0;
  }
  return Number(std::string_view(text).substr(name_end + kAfterName.size()));
}

/// Empty without /proc.
std::vector<pid_t> Children() {
  std::vector<pid_t> children;
  const UniqueFd all = OpenFile("/proc", O_RDONLY | O_DIRECTORY);
  if (!all.valid()) {
    return children;
  }
  const pid_t self = getpid();
  for (const std::string& name : ListDirectory(all.get(), "/proc")) {
    if (const pid_t number = Number(name); number > 0 && ParentOf("/proc/" + name) == self) {
      children.push_back(number);
    }
  }
  return children;
}

}  // namespace

void AdoptOrphans() {
  if (prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0) {
    ThrowErrno("cannot adopt what plugins leave behind");
  }
}

bool ReapChildren(const std::function<void(pid_t, int)>& ended) {
  int status = 0;
  pid_t child = 0;
  while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
    ended(child, status);
  }
  return child == 0;
}

ChildrenEnd::ChildrenEnd(pid_t leader) : group_(leader), leader_(leader) {
  if (leader > 0) {
    kill(-leader, SIGTERM);
  }
}

bool ChildrenEnd::Continue() {
  const Clock::duration elapsed = Clock::now() - begin_;
  if (elapsed < kGrace) {
    AskNewChildren();
  } else {
    Kill();
  }
  return elapsed < 2 * kGrace;
}

void ChildrenEnd::AskNewChildren() {
  for (const pid_t child : Children()) {
    if ((group_ == 0 || getpgid(child) != group_) && asked_.insert(child).second) {
      kill(child, SIGTERM);
    }
  }
}

void ChildrenEnd::Kill() const {
  if (leader_ > 0) {
    kill(-leader_, SIGKILL);
  }
  for (const pid_t child : Children()) {
    kill(child, SIGKILL);
  }
}

}  // namespace orbamira::plugins
