#include "tools/packctl/cli/run.h"

#include <array>
#include <chrono>
#include <ctime>
#include <exception>
#include <utility>

#include "platform/constants.h"
#include "platform/log.h"
#include "tools/packctl/cli/program.h"
#include "tools/packctl/view/failure_words.h"
#include "updater/kos_helper.h"
#include "updater/update_lock.h"

namespace orbamira::packctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array kFunctions = {
    Function{"check", Check},   Function{"download", Download},   Function{"install", Install},
    Function{"update", Update}, Function{"remove", Remove},       Function{"status", Status},
    Function{"info", Info},     Function{"history", ShowHistory}, Function{"doctor", Doctor},
    Function{"codecs", Codecs}, Function{"plugins", Plugins},     Function{"recover", RunRecovery},
    Function{"web", Web},
};

std::vector<std::string> Joined(std::vector<std::string> front, const std::vector<std::string>& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

std::optional<PackIdentity> InstalledPack() {
  const auto facts = updater::KOSHelper::Create();
  if (!facts->FileExist(path::kPackInfoPath)) {
    return std::nullopt;
  }
  return PackIdentity{facts->GetPackageNameFromPath(path::kPackInfoPath),
                      facts->GetVersionFromPath(path::kPackInfoPath)};
}

// The history is a courtesy: that it cannot be kept is told, and fails nothing.
void Keep(const HistoryEntry& entry, std::vector<std::string>& problems) {
  try {
    AppendToHistory(entry);
  } catch (const std::exception& error) {
    problems.push_back(std::string("cannot keep the history: ") + error.what());
    ORBAMIRA_LOG_ERROR("Failed to keep the history: %s", error.what());
  }
}

/// "Update failed: CAUSE. Version 1.0 stays installed. REMEDY"
std::string FailureSentence(const Command& command, const Console::Held& held,
                            const std::vector<std::string>& problems) {
  const FailureWords words = ExplainFailure(command.name, held.other, held.log, problems);
  const std::optional<PackIdentity> pack = InstalledPack();
  std::string sentence = std::string(command.name) + " failed: " + words.cause + ". " +
                         (pack ? "Version " + pack->version + " stays installed. " : "No codec pack is installed. ") +
                         words.remedy;
  sentence.front() = static_cast<char>(sentence.front() - 'a' + 'A');
  return sentence;
}

Outcome RunAlone(const Command& command, Context& context) {
  const bool is_change = command.effect == Effect::kChange;
  const Clock::time_point begin = Clock::now();
  const std::optional<PackIdentity> before = is_change ? InstalledPack() : std::nullopt;
  Outcome outcome = Attempt(command, context, kFunctions);
  const bool failed = outcome.exit == kExitFailed;
  Console::Held held = context.console.TakeHeld();
  const bool is_failed_change = is_change && failed;
  const std::string sentence = is_failed_change ? FailureSentence(command, held, outcome.problems) : "";
  std::vector<std::string> errors = failed ? Joined(std::move(held.log), outcome.problems) : outcome.problems;
  if (is_change && (outcome.changed || failed)) {
    const auto duration = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    Keep({.time = std::time(nullptr),
          .duration_ms = duration.count(),
          .command = command.name,
          .from = before,
          .to = outcome.offer ? outcome.offer : InstalledPack(),
          .result = outcome.json["result"].asString(),
          .status = outcome.json["status"].asString(),
          .exit = outcome.exit,
          .errors = errors},
         errors);
  }
  if (!is_failed_change) {
    outcome.problems = Joined(std::move(held.other), errors);
    return outcome;
  }
  outcome.problems = context.options.verbose ? Joined(std::move(held.other), errors) : std::vector<std::string>();
  outcome.problems.push_back(sentence);
  return outcome;
}

}  // namespace

Outcome Run(const Command& command, Context& context) {
  try {
    std::optional<updater::UpdateLock> lock;
    if (command.effect != Effect::kNone) {
      context.lock = &lock.emplace();
    }
    return RunAlone(command, context);
  } catch (const updater::Busy& busy) {
    return Refused(kExitNotPermitted, command, "busy", busy.what());
  } catch (const std::exception& error) {
    return Refused(kExitFailed, command, "failed", error.what());
  }
}

}  // namespace orbamira::packctl
