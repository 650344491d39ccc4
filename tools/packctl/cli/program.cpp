#include "tools/packctl/cli/program.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
#include <thread>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/log.h"
#include "platform/posix/errors.h"
#include "platform/posix/program.h"
#include "platform/printable.h"
#include "tools/packctl/cli/command_line.h"
#include "tools/packctl/cli/signals.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/failure_words.h"
#include "updater/update_lock.h"

namespace orbamira::packctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kFailed = "failed";

// It takes the command line as it is.
[[noreturn]] void BecomeAccountProgram(char** argv) {
  const std::filesystem::path program = std::filesystem::path(path::kOrbaArchivePath).replace_filename("orba-account");
  execv(program.c_str(), argv);
  ThrowErrno("cannot run " + program.string());
}

void Append(std::vector<std::string>& lines, const std::vector<std::string>& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

Outcome Attempt(const Command& command, Context& context) try {
  return command.run(context);
} catch (const std::exception& error) {
  return {.exit = kExitFailed, .result = kFailed, .problems = {error.what()}};
}

// To somebody who is not root, a file that is refused says that root is needed, whatever file it is.
Failure Explained(const std::string& command, const Said& said) {
  Failure failure = ExplainFailure(command, said);
  if (geteuid() != 0 && failure.code == CodeOf(FailureReason::kPermissionDenied)) {
    return NeedsRoot(command.substr(0, command.find(" --"))).value_or(std::move(failure));
  }
  return failure;
}

// A failure is told in one sentence; what was said on the way is for who asks.
Outcome RunQuery(const Command& command, Context& context) {
  Outcome outcome = Attempt(command, context);
  Console::Held held = context.console.TakeHeld();
  std::vector<std::string> problems = held.other;
  if (outcome.exit == kExitFailed) {
    Append(problems, held.log);
  }
  Append(problems, outcome.problems);
  if (outcome.result != kFailed) {
    outcome.problems = std::move(problems);
    return outcome;
  }
  outcome.failure = Explained(command.name, {held.other, held.log, outcome.problems});
  outcome.problems = context.options.verbose ? std::move(problems) : std::vector<std::string>();
  outcome.problems.push_back(FailureSentence(*outcome.failure));
  return outcome;
}

std::optional<PackIdentity> InstalledIdentity() {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  return pack ? std::optional(pack->identity) : std::nullopt;
}

// Best effort: a history that cannot be kept is reported, never fatal.
void Keep(const HistoryEntry& entry, std::vector<std::string>& problems) {
  try {
    AppendToHistory(entry);
  } catch (const std::exception& error) {
    problems.push_back(std::string("cannot keep the history: ") + error.what());
    ORBAMIRA_LOG_ERROR("Failed to keep the history: %s", error.what());
  }
}

// What is shown of a change beside its result: why it failed or was refused is one sentence, and the rest for who asks.
std::vector<std::string> Shown(const Command& command, const Outcome& outcome, const Options& options,
                               std::vector<std::string> said, const std::optional<PackIdentity>& installed) {
  const bool is_told = outcome.failure.has_value();
  std::vector<std::string> shown;
  if (options.verbose || (!is_told && !options.quiet)) {
    shown = std::move(said);
  }
  if (is_told) {
    shown.push_back(FailureSentence({.command = command.name, .version = outcome.version}, *outcome.failure,
                                    installed ? std::optional(installed->version) : std::nullopt));
  }
  return shown;
}

// Tells of it in the history.
Outcome RunChange(const Command& command, Context& context) {
  const Clock::time_point begin = Clock::now();
  const std::optional<PackIdentity> before = InstalledIdentity();
  Outcome outcome = Attempt(command, context);
  const std::optional<PackIdentity> now = InstalledIdentity();
  const Change change = outcome.change.value_or(Change());
  const bool failed = outcome.exit == kExitFailed;
  Console::Held held = context.console.TakeHeld();
  std::vector<std::string> errors = failed ? held.log : std::vector<std::string>();
  Append(errors, outcome.problems);
  if (failed && !outcome.failure) {
    const std::string again = outcome.again.empty() ? command.name : outcome.again;
    outcome.failure = Explained(again, {held.other, held.log, outcome.problems});
  }
  if (change.happened || failed) {
    const auto duration = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    Keep({.time = std::time(nullptr),
          .duration_ms = duration.count(),
          .command = command.name,
          .from = before,
          .to = change.offer ? change.offer : now,
          .result = outcome.result,
          .status = change.status ? StatusText(*change.status) : "",
          .exit = outcome.exit,
          .errors = errors,
          .failure = outcome.failure},
         errors);
  }
  std::vector<std::string> said = std::move(held.other);
  Append(said, errors);
  outcome.problems = Shown(command, outcome, context.options, std::move(said), now);
  return outcome;
}

// Asks again and again: the lock itself does not wait.
void TakeLock(std::optional<updater::UpdateLock>& lock, std::chrono::seconds patience) {
  constexpr std::chrono::milliseconds kInterval{100};
  for (const Clock::time_point end = Clock::now() + patience;; std::this_thread::sleep_for(kInterval)) {
    try {
      lock.emplace();
      return;
    } catch (const updater::Busy&) {
      if (Clock::now() >= end) {
        throw;
      }
    }
  }
}

Outcome Refused(ExitStatus exit, const char* result, Failure failure) {
  Outcome outcome{.exit = exit, .result = result, .problems = {FailureSentence(failure)}};
  outcome.failure = std::move(failure);
  return outcome;
}

Outcome Run(const Command& command, Context& context) try {
  std::optional<updater::UpdateLock> lock;
  if (command.effect != Effect::kNone) {
    // Who was cancelled gave the lock up for a moment, and has the right to it.
    TakeLock(lock, context.options.cancelled ? std::chrono::minutes(5) : std::chrono::seconds(context.options.wait));
    context.lock = &*lock;
  }
  return command.effect == Effect::kChange ? RunChange(command, context) : RunQuery(command, context);
} catch (const updater::Busy& busy) {
  const std::string remedy = std::string("Run: sudo packctl ") + command.name + " --wait 600";
  return Refused(kExitBusy, "busy", MakeFailure(FailureReason::kBusy, busy.what(), remedy));
} catch (const std::exception& error) {
  return Refused(kExitFailed, kFailed, Explained(command.name, {.problems = {error.what()}}));
}

Json::Value AnswerJson(const Command& command, const Outcome& outcome) {
  Json::Value answer = outcome.members;
  if (!outcome.result.empty()) {
    answer["command"] = command.name;
    answer["result"] = outcome.result;
  }
  if (outcome.change) {
    answer["status"] = outcome.change->status ? Json::Value(StatusText(*outcome.change->status)) : Json::Value();
  }
  if (outcome.failure) {
    answer["error"] = FailureJson(outcome.failure);
  }
  return answer;
}

// The last problem of a failure says how it ended.
void Complain(const Console& console, const Outcome& outcome) {
  for (const std::string& problem : outcome.problems) {
    const bool is_end = outcome.failure && &problem == &outcome.problems.back();
    console.Complain(problem, !is_end ? Tone::kPlain : outcome.exit == kExitFailed ? Tone::kBad : Tone::kWarning);
  }
}

std::string AnswerText(const Console& console, const Invocation& invocation, const Outcome& outcome) {
  const Options& options = invocation.options;
  if (options.json && !outcome.members.isNull()) {
    return JsonLine(AnswerJson(*invocation.command, outcome));
  }
  if (options.quiet) {
    return "";
  }
  const bool is_good = invocation.command->effect == Effect::kChange && outcome.exit == kExitDone;
  return is_good ? console.Painted(outcome.text, Tone::kGood) : outcome.text;
}

int Answer(const Invocation& invocation) {
  Console console;
  SetUpSignals(console.IsTerminal());
  console.SetColor(invocation.options.color);
  Context context{console, invocation.options};
  const Outcome outcome = Run(*invocation.command, context);
  Complain(console, outcome);
  if (!console.Print(AnswerText(console, invocation, outcome))) {
    console.Complain("cannot write to the standard output");
    return kExitFailed;
  }
  return outcome.exit;
}

}  // namespace

int Main(int argc, char** argv, std::span<const Command> commands) try {
  OpenStandardStreams();
  const ParsedLine line = ParseCommandLine(argc, argv, commands);
  if (!line.invocation) {
    return line.exit;
  }
  if (line.invocation->command->run == nullptr) {
    BecomeAccountProgram(argv);
  }
  return Answer(*line.invocation);
} catch (const std::exception& error) {
  std::cerr << "packctl: " << Printable(error.what()) << '\n';
  return kExitFailed;
}

}  // namespace orbamira::packctl
