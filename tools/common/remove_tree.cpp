#include "tools/common/remove_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>

#include "tools/common/posix.h"

namespace orbamira::tools {
namespace {

void Empty(const UniqueFd& folder, const std::string& shown) {
  std::exception_ptr first;
  for (const std::string& name : ListDirectory(folder.get(), shown)) {
    try {
      RemoveTree(folder.get(), name, Below(shown, name));
    } catch (const std::system_error&) {
      first = first ? first : std::current_exception();
    }
  }
  if (first) {
    std::rethrow_exception(first);
  }
}

}  // namespace

void RemoveTree(int parent, const std::string& name, const std::string& shown) {
  if (unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) {
    return;
  }
  if (errno != EISDIR) {
    ThrowErrno(shown);
  }
  // A read-only folder must be opened up before an ordinary user can empty it.
  fchmodat(parent, name.c_str(), 0700, 0);
  Empty(OpenDirectory(parent, name, shown), shown);
  if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
    ThrowErrno(shown);
  }
}

}  // namespace orbamira::tools
