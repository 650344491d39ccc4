#include "tools/packctl/cli/program.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <iostream>
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

// A failure is told with what was logged on the way.
Outcome RunQuery(const Command& command, Context& context) {
  Outcome outcome = Attempt(command, context);
  Console::Held held = context.console.TakeHeld();
  if (outcome.result == kFailed) {
    outcome.failure = ExplainFailure(command.name, {held.other, held.log, outcome.problems});
  }
  std::vector<std::string> problems = std::move(held.other);
  if (outcome.exit == kExitFailed) {
    Append(problems, held.log);
  }
  Append(problems, outcome.problems);
  outcome.problems = std::move(problems);
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

// Tells of it in the history, and of a failure in one sentence; what was logged is for who asks.
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
  if (failed) {
    outcome.failure = ExplainFailure(command.name, {held.other, held.log, outcome.problems});
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
  outcome.problems.clear();
  if (!failed || context.options.verbose) {
    outcome.problems = std::move(held.other);
    Append(outcome.problems, errors);
  }
  if (failed) {
    outcome.problems.push_back(
        FailureSentence(command.name, *outcome.failure, now ? std::optional(now->version) : std::nullopt));
  }
  return outcome;
}

Outcome Run(const Command& command, Context& context) try {
  std::optional<updater::UpdateLock> lock;
  if (command.effect != Effect::kNone) {
    context.lock = &lock.emplace();
  }
  return command.effect == Effect::kChange ? RunChange(command, context) : RunQuery(command, context);
} catch (const updater::Busy& busy) {
  return {.exit = kExitNotPermitted,
          .result = "busy",
          .problems = {busy.what()},
          .failure = MakeFailure(FailureReason::kBusy, busy.what(), "Try again when it has ended.")};
} catch (const std::exception& error) {
  return {.exit = kExitFailed,
          .result = kFailed,
          .problems = {error.what()},
          .failure = ExplainFailure(command.name, {.problems = {error.what()}})};
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

int Answer(const Invocation& invocation) {
  Console console;
  SetUpSignals(console.IsTerminal());
  Context context{console, invocation.options};
  const Outcome outcome = Run(*invocation.command, context);
  for (const std::string& problem : outcome.problems) {
    console.Complain(problem);
  }
  const bool json = invocation.options.json && !outcome.members.isNull();
  if (!console.Print(json ? JsonLine(AnswerJson(*invocation.command, outcome)) : outcome.text)) {
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
