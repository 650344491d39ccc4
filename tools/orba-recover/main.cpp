#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "platform/posix/files.h"
#include "updater/recovery.h"
#include "updater/update_lock.h"

namespace {

using orbamira::Printable;
using orbamira::PrintAll;

constexpr int kExitBusy = 3;  // as packctl ends

constexpr const char* kUsage =
    "Usage: orba-recover\n"
    "Put in order what an interrupted update of the codec pack left behind.\n"
    "\n"
    "  --help     print this text\n"
    "  --version  print the version\n"
    "\n"
    "Prints what it did, one line each; nothing when everything was in order. The\n"
    "exit status is 0 when everything is in order now, 3 when another program is at\n"
    "work, else 1.\n";

void Complain(const std::string& problem) {
  static_cast<void>(std::fprintf(stderr, "orba-recover: %s\n", Printable(problem).c_str()));
}

int Recover() {
  const orbamira::updater::UpdateLock lock;
  const orbamira::updater::RecoveryReport report = orbamira::updater::Recover(lock);
  std::string text;
  for (const std::string& action : report.done) {
    text += Printable(action) + "\n";
  }
  for (const std::string& failure : report.failed) {
    Complain(failure);
  }
  static_cast<void>(PrintAll(text.c_str()));  // a reader that went away decides nothing
  return report.failed.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) try {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
  const std::string_view option = argc == 2 ? argv[1] : "";
  if (option == "--help") {
    return PrintAll(kUsage);
  }
  if (option == "--version") {
    return PrintAll("orba-recover " ORBAMIRA_VERSION "\n");
  }
  if (argc != 1) {
    static_cast<void>(std::fputs(kUsage, stderr));
    return EXIT_FAILURE;
  }
  return Recover();
} catch (const orbamira::updater::Busy& busy) {
  Complain(busy.what());
  return kExitBusy;
} catch (const std::exception& error) {
  Complain(error.what());
  return EXIT_FAILURE;
}
