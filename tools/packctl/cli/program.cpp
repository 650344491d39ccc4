#include "tools/packctl/cli/program.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <system_error>

#include "platform/json/json_line.h"
#include "platform/printable.h"

namespace orbamira::packctl {
namespace {

// An interrupted line still ends as one; the program then ends as the signal says. What it leaves is for the recovery.
void EndLineAndDie(int signal_number) {
  const int terminal = open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (terminal >= 0 && write(terminal, "\n", 1) < 0) {
    _exit(kExitFailed);
  }
  static_cast<void>(raise(signal_number));
}

void SetUpSignals(const Console& console) {
  // Neither a reader that goes away nor a limit on the size of files may end an install halfway.
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
  static_cast<void>(signal(SIGXFSZ, SIG_IGN));
  if (!console.IsTerminal()) {
    return;
  }
  struct sigaction action {};
  action.sa_handler = EndLineAndDie;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal_number : {SIGINT, SIGTERM}) {
    sigaction(signal_number, &action, nullptr);
  }
}

// A closed standard descriptor would go to the next file that is opened, and be written to as output.
void OpenStandardDescriptors() {
  int fd = 0;
  while (fd <= STDERR_FILENO) {
    fd = open("/dev/null", O_RDWR);
    if (fd < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot open /dev/null");
    }
  }
  close(fd);
}

}  // namespace

int Main(int argc, char** argv, const std::function<int(const Invocation&)>& answer) try {
  OpenStandardDescriptors();
  const ParsedLine line = ParseCommandLine(argc, argv);
  return line.invocation ? answer(*line.invocation) : line.exit;
} catch (const std::exception& error) {
  std::cerr << "packctl: " << Printable(error.what()) << '\n';
  return kExitFailed;
}

Outcome Attempt(const Command& command, Context& context, std::span<const Function> functions) {
  const auto function = std::find_if(functions.begin(), functions.end(),
                                     [&](const Function& candidate) { return candidate.command == command.name; });
  if (function == functions.end()) {
    return Refused(kExitUsage, command, "failed", "this command is packctl's");
  }
  try {
    return function->run(context);
  } catch (const std::exception& error) {
    return Refused(kExitFailed, command, "failed", error.what());
  }
}

Outcome Refused(ExitStatus exit, const Command& command, const char* result, const std::string& problem) {
  Outcome outcome{.exit = exit, .problems = {problem}};
  outcome.json["command"] = command.name;
  outcome.json["result"] = result;
  return outcome;
}

int Answer(const Invocation& invocation, Outcome (*run)(const Command&, Context&)) {
  Console console;
  SetUpSignals(console);
  Context context{console, invocation.options};
  const Outcome outcome = run(*invocation.command, context);
  for (const std::string& problem : outcome.problems) {
    console.Complain(problem);
  }
  const bool json = invocation.options.json && !outcome.json.isNull();
  if (!console.Print(json ? JsonLine(outcome.json) : outcome.text)) {
    console.Complain("cannot write to the standard output");
    return kExitFailed;
  }
  return outcome.exit;
}

}  // namespace orbamira::packctl
