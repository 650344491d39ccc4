#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/constants.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/paths.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/program.h"
#include "platform/printable.h"
#include "tools/orba-plugins/app_ids.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/guard.h"
#include "tools/orba-plugins/pack_judge.h"
#include "tools/orba-plugins/plugin_folder.h"
#include "tools/orba-plugins/plugin_run.h"
#include "tools/orba-plugins/signals.h"
#include "tools/orba-plugins/time_limit.h"

namespace {

using namespace orbamira::plugins;

using Arguments = std::vector<std::string>;
using Paths = std::vector<std::string>;

constexpr const char* kPluginTimeLimit = "plugin_time_limit";

constexpr int kExitUnhealthy = 3;
constexpr int kExitUsage = 64;
constexpr int kExitSignal = 128;  // plus the number of the signal

constexpr const char* kNotifyUsage =
    "Usage: notify-plugins --event EVENT --package NAME --timing TIMING --version VERSION\n"
    "                      --status STATUS\n"
    "Tell every plugin of one step of an installation or removal.\n";

constexpr const char* kNotifyHelp =
    "\n"
    "  EVENT    what is done: install or uninstall\n"
    "  NAME     the package that the step is about\n"
    "  TIMING   when: pre (the step is about to begin) or post (it is done)\n"
    "  VERSION  the version of that package\n"
    "  STATUS   what the step means for the pack: INSTALL, UNINSTALL or UPGRADE\n"
    "\n"
    "Each option is given once, in any order. The plugins are the executables in\n" ORBAMIRA_PLUGINS_FOLDER
    ". Each is run with exactly these arguments, but for\n"
    "control characters, which become \\ooo, one after the other in the order of\n"
    "their names. One that fails does not keep the others from being told.\n"
    "\n"
    "exit status: 0 all plugins were told, or there are none; 1 at least one failed,\n"
    "named on the standard error and in the system log; 64 wrong usage\n";

constexpr const char* kListUsage =
    "Usage: list-app-ids FILE\n"
    "Ask every plugin for its application ids and write them to FILE as a JSON array.\n";

constexpr const char* kListHelp =
    "\n"
    "The plugins are the executables in " ORBAMIRA_PLUGINS_FOLDER
    ". Each is run with\n"
    "the argument --app-id, one after the other in the order of their names, and\n"
    "prints its ids: one a line, UTF-8, 64 KiB at most. One that fails is named on\n"
    "the standard error and in the system log, and left out. So is one whose ids\n"
    "would make FILE larger than 1 MiB. FILE is put in place whole.\n"
    "\n"
    "exit status: 0 FILE is written; 1 it is not; 64 wrong usage\n";

constexpr const char* kHealthUsage =
    "Usage: check-health FOLDER\n"
    "Check whether the pack in FOLDER can be used.\n";

constexpr const char* kHealthHelp =
    "\n"
    "Each shared library of the pack is loaded by a process of its own. Then the\n"
    "executables in " ORBAMIRA_HEALTH_FOLDER
    " are run with the argument FOLDER,\n"
    "one after the other in the order of their names: one that does not exit with 0\n"
    "rejects the pack.\n"
    "\n"
    "exit status: 0 the pack is healthy; 3 it is not, and the standard error and the\n"
    "system log say why; 1 it could not be checked; 64 wrong usage\n";

bool IsStep(const Arguments& arguments) {
  constexpr std::array<std::string_view, 5> kOptions = {"--event", "--package", "--status", "--timing", "--version"};
  std::vector<std::string_view> options;
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    options.emplace_back(arguments[i]);
  }
  std::sort(options.begin(), options.end());
  return arguments.size() == 2 * kOptions.size() && std::equal(options.begin(), options.end(), kOptions.begin());
}

int Notify(const Arguments& arguments, const Paths& plugins, Signals& signals) {
  const double seconds = TimeLimit(kPluginTimeLimit);
  // A version comes from a server or a package, and plugins print it and use it in scripts.
  Arguments printable;
  std::transform(arguments.begin(), arguments.end(), std::back_inserter(printable), orbamira::Printable);
  int status = EXIT_SUCCESS;
  for (const std::string& plugin : plugins) {
    try {
      RunPlugin(plugin, printable, seconds, signals);
    } catch (const PluginFailure& failure) {
      Report(failure.what());
      status = EXIT_FAILURE;
    }
  }
  return status;
}

bool IsFileName(const Arguments& arguments) {
  return arguments.size() == 1 && !arguments[0].empty() && !arguments[0].starts_with('-');
}

std::vector<std::string> AskForIds(const std::string& plugin, double seconds, Signals& signals) {
  constexpr std::size_t kMost = std::size_t{64} * 1024;
  std::string text;
  RunPlugin(plugin, {"--app-id"}, seconds, signals, [&text](std::string_view piece) {
    const bool fits = text.size() + piece.size() <= kMost;
    text += fits ? piece : "";
    return fits;
  });
  try {
    return IdsIn(text);
  } catch (const std::invalid_argument& error) {
    throw PluginFailure(plugin, error.what());
  }
}

void WriteAnswer(const std::string& file, const std::string& text) {
  if (const std::filesystem::path folder = std::filesystem::path(file).parent_path(); !folder.empty()) {
    if (const int made = orbamira::wrapper::OrbaSDKWrapper().MakeDirectory(folder); made < 0) {
      throw std::system_error(-made, std::generic_category(), folder);
    }
  }
  static_cast<void>(orbamira::ReplaceFile(file, text, S_IRUSR | S_IWUSR, orbamira::Durability::kVisible));
}

int ListIds(const Arguments& arguments, const Paths& plugins, Signals& signals) {
  const double seconds = TimeLimit(kPluginTimeLimit);
  AppIdAnswer answer;
  for (const std::string& plugin : plugins) {
    try {
      if (!answer.Add(AskForIds(plugin, seconds, signals))) {
        throw PluginFailure(plugin, "left out: with its ids the answer would be larger than 1 MiB");
      }
    } catch (const PluginFailure& failure) {
      Report(failure.what());
    }
  }
  try {
    WriteAnswer(arguments[0], answer.Text());
  } catch (const std::system_error& error) {
    throw PluginFailure(arguments[0], "cannot be written: " + error.code().message());
  }
  return EXIT_SUCCESS;
}

bool IsFolder(const Arguments& arguments) { return IsFileName(arguments) && arguments[0].starts_with('/'); }

int CheckHealth(const Arguments& arguments, const Paths& programs, Signals& signals) {
  switch (JudgePack(arguments[0], programs, signals)) {
    case Judgement::kHealthy:
      return EXIT_SUCCESS;
    case Judgement::kUnhealthy:
      return kExitUnhealthy;
    case Judgement::kUnknown:
      break;
  }
  return EXIT_FAILURE;
}

/// What the program does under one of its names.
struct Role {
  std::string_view name;
  const char* const* folder;  ///< of the programs that it runs
  bool is_always_guarded;
  const char* usage;
  const char* help;
  bool (*is_valid)(const Arguments&);
  int (*run)(const Arguments&, const Paths& plugins, Signals&);
};

constexpr std::array kRoles = {
    Role{"notify-plugins", &orbamira::path::kPluginFolder, false, kNotifyUsage, kNotifyHelp, IsStep, Notify},
    Role{"list-app-ids", &orbamira::path::kPluginFolder, false, kListUsage, kListHelp, IsFileName, ListIds},
    Role{"check-health", &orbamira::path::kHealthFolder, true, kHealthUsage, kHealthHelp, IsFolder, CheckHealth},
};

/// Starts no other process when there is no plugin, which is so on most appliances.
int Run(const Role& role, const Arguments& arguments) {
  Signals signals;
  const Paths plugins = ListPrograms(*role.folder);
  const auto work = [&]() -> int {
    try {
      return role.run(arguments, plugins, signals);
    } catch (const Stopped& stopped) {
      return kExitSignal + stopped.signal_number;
    } catch (const std::exception& error) {
      Report(error.what());
      return EXIT_FAILURE;
    }
  };
  return plugins.empty() && !role.is_always_guarded ? work() : RunGuarded(signals, work);
}

int Answer(const Role& role, int argc, char** argv) {
  if (const std::optional<int> status = orbamira::AnswerHelp(argc, argv, std::string(role.usage) + role.help,
                                                             std::string(role.name) + " " ORBAMIRA_VERSION)) {
    return *status;
  }
  const Arguments arguments(argv + 1, argv + argc);
  if (!role.is_valid(arguments)) {
    PrintError(role.usage);
    return kExitUsage;
  }
  return Run(role, arguments);
}

}  // namespace

int main(int argc, char** argv) try {
  orbamira::OpenStandardStreams();
  orbamira::IgnoreOutputSignals();
  const auto* const role = std::find_if(kRoles.begin(), kRoles.end(),
                                        [](const Role& known) { return known.name == program_invocation_short_name; });
  if (role == kRoles.end()) {
    for (const Role& known : kRoles) {
      PrintError(known.usage);
    }
    return kExitUsage;
  }
  return Answer(*role, argc, argv);
} catch (const std::exception& error) {
  Report(error.what());
  return EXIT_FAILURE;
}
