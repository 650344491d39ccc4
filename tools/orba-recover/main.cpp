#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "platform/posix/program.h"
#include "platform/printable.h"
#include "updater/recovery.h"
#include "updater/update_lock.h"

namespace {

using orbamira::Printable;

constexpr int kExitBusy = 3;  // as in packctl

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
  static_cast<void>(orbamira::PrintAll(text));  // best effort: recovery is done
  return report.failed.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) try {
  orbamira::IgnoreOutputSignals();
  if (const std::optional<int> status = orbamira::AnswerHelp(argc, argv, kUsage, "orba-recover " ORBAMIRA_VERSION)) {
    return *status;
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
