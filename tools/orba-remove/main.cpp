#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/posix.h"
#include "tools/common/remove_tree.h"

namespace {

using orbamira::UniqueFd;
using orbamira::tools::PathParts;
using orbamira::tools::Printable;
using orbamira::tools::PrintAll;
using orbamira::tools::RemoveTree;
using orbamira::tools::ThrowErrno;

constexpr const char* kUsage =
    "Usage: orba-remove -rf PATH\n"
    "Remove a file, a symbolic link, or a folder with all that it holds.\n"
    "\n"
    "  -rf        folders too, and no error when there is nothing\n"
    "  --help     print this text\n"
    "  --version  print the version\n"
    "\n"
    "A folder leaves its place in one step: it is moved into a new folder\n"
    "\".removed.XXXXXX\" beside it and removed there. Where it cannot be moved it is\n"
    "removed where it is. The exit status is 0 when nothing is left, else 1.\n";

/// Moves the entry into a new folder beside it; the name of that, or nothing where the entry must stay where it is: it
/// is a mount point, say, or the disk is too full for one folder more. The name is a pattern that recovery knows.
std::string MoveAside(int parent, const PathParts& path) {
  std::string aside = path.parent + "/.removed.XXXXXX";
  if (mkdtemp(aside.data()) == nullptr) {
    return "";
  }
  aside = aside.substr(aside.rfind('/') + 1);
  if (renameat(parent, path.name.c_str(), parent, (aside + "/" + path.name).c_str()) != 0 && errno != ENOENT) {
    unlinkat(parent, aside.c_str(), AT_REMOVEDIR);
    return "";
  }
  return aside;
}

/// Whoever looks at the path, at whatever instant, finds all of it or nothing: an end midway, or another process that
/// gives the folder a new name meanwhile, never makes a part of it look like the whole.
void Remove(const std::string& shown) {
  const PathParts path = orbamira::tools::SplitPath(shown);
  const UniqueFd parent(open(path.parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent.valid()) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return;
    }
    ThrowErrno(path.parent);
  }
  struct stat status = {};
  if (fstatat(parent.get(), path.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode)) {
    const std::string aside = MoveAside(parent.get(), path);
    RemoveTree(parent.get(), aside.empty() ? path.name : aside, shown);
  } else {
    RemoveTree(parent.get(), path.name, shown);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string_view> arguments(argv + 1, argv + argc);
  if (arguments.size() == 1 && arguments[0] == "--help") {
    return PrintAll(kUsage);
  }
  if (arguments.size() == 1 && arguments[0] == "--version") {
    return PrintAll("orba-remove " ORBAMIRA_VERSION "\n");
  }
  if (arguments.size() != 2 || arguments[0] != "-rf" || arguments[1].empty()) {
    static_cast<void>(std::fputs(kUsage, stderr));
    return EXIT_FAILURE;
  }
  try {
    Remove(std::string(arguments[1]));
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "orba-remove: %s\n", Printable(error.what()).c_str()));
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
