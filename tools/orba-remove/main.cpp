#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/program.h"
#include "platform/printable.h"
#include "platform/removal.h"

namespace {

using orbamira::Printable;

constexpr const char* kUsage =
    "Usage: orba-remove -rf PATH\n"
    "Remove a file, a symbolic link, or a folder with all that it holds.\n"
    "\n"
    "  -rf        folders too, and no error when there is nothing\n"
    "  --help     print this text\n"
    "  --version  print the version\n"
    "\n"
    "A folder leaves its place in one step: it is renamed to \".removed.XXXXXX\" beside\n"
    "it and removed there. Where it cannot be renamed it is removed where it is. The\n"
    "backup of a pack becomes the previous pack instead. The exit status is 0 when\n"
    "nothing is left, else 1.\n";

}  // namespace

int main(int argc, char** argv) {
  orbamira::IgnoreOutputSignals();
  if (const std::optional<int> status = orbamira::AnswerHelp(argc, argv, kUsage, "orba-remove " ORBAMIRA_VERSION)) {
    return *status;
  }
  const std::vector<std::string_view> arguments(argv + 1, argv + argc);
  if (arguments.size() != 2 || arguments[0] != "-rf" || arguments[1].empty()) {
    static_cast<void>(std::fputs(kUsage, stderr));
    return EXIT_FAILURE;
  }
  try {
    orbamira::RemoveForUpdater(std::string(arguments[1]));
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "orba-remove: %s\n", Printable(error.what()).c_str()));
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
