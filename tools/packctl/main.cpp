#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <json/writer.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>
#include <system_error>

#include "tools/packctl/command.h"
#include "tools/packctl/exclusive_lock.h"

namespace {

using orbamira::packctl::Console;
using orbamira::packctl::Context;
using orbamira::packctl::ExitStatus;
using orbamira::packctl::Outcome;

namespace packctl = orbamira::packctl;

struct Command {
  const char* name;
  Outcome (*run)(Context&);
  const char* summary;
  const char* details;
};

constexpr std::array kCommands = {
    Command{"check", packctl::Check, "Ask the update server for a new pack",
            "Records a newer pack as waiting for download, whatever the recorded status was.\n"
            "Exit status: 0 a new pack is available, 2 nothing new, 1 the check failed.\n"
            "Example: packctl check && packctl update"},
    Command{"download", packctl::Download, "Download and verify the pack on offer",
            "Permitted when the status is need_download or download_failed. Nothing is installed yet; follow with\n"
            "\"packctl install\"."},
    Command{"install", packctl::Install, "Install the downloaded pack",
            "Permitted when the status is need_install or install_failed. Applications are told before and after.\n"
            "When it fails, the previous pack comes back."},
    Command{"update", packctl::Update, "Download the pack on offer and install it",
            "Permitted when the status is lost, need_download, need_install, download_install_failed or up_to_date.\n"
            "The versions are not compared: the pack on offer is fetched even if it is installed already. Run\n"
            "\"packctl check\" first to fetch only what is new. When it fails, the previous pack comes back."},
    Command{"remove", packctl::Remove, "Remove the installed pack",
            "Applications are not told, and the recorded status stays as it is. Not permitted while that says work is\n"
            "under way.\n"
            "Exit status 2: no pack is installed."},
    Command{"status", packctl::Status, "Show the recorded status and progress",
            "May be run at any time, also while an update is running. With --json the keys are those of the status\n"
            "store; sizes are numbers of bytes."},
    Command{
        "info", packctl::Info, "Show the installed pack",
        "With --json: installed, package, version, and updated in seconds since the epoch; the last three are null\n"
        "without a pack. Exit status 0 also when none is installed."},
    Command{"codecs", packctl::Codecs, "Show which codecs are installed and which are asked for",
            "With --json: the lists installed and requested."},
    Command{"plugins", packctl::Plugins, "List the plugins that are told of installs",
            "Prints one application id a line; with --json: the list app_ids."},
    Command{
        "recover", packctl::RunRecovery, "Clear what an interrupted update left behind",
        "Brings the previous pack back where a new one did not get into place, removes temporary files and folders,\n"
        "and turns a status that says work is under way into its failed form. Run at boot, before anything else\n"
        "uses the pack; by hand only while no other program is updating it.\n"
        "Exit status 0: everything is in order now, 1: something could not be mended."},
};

constexpr const char* kFooter =
    "Exit status:\n"
    "  0   done\n"
    "  1   failed; the reason is on standard error and in the system log\n"
    "  2   nothing to do\n"
    "  3   not permitted by the recorded status, or another packctl is at work\n"
    "  64  wrong usage\n"
    "\n"
    "Commands that change something exclude each other; status, info and codecs run at any time.\n"
    "The environment variable ORBAMIRA_ROOT stands in front of every path: a staged system is served in place.";

constexpr const char* kJsonHelp = "Print one JSON object instead of text";

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

// An interrupted line still ends as one; the program then ends as the signal says. What it leaves is for the recovery.
void EndLineAndDie(int signal_number) {
  const int terminal = open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (terminal >= 0 && write(terminal, "\n", 1) < 0) {
    _exit(packctl::kExitFailed);
  }
  static_cast<void>(raise(signal_number));
}

void SetUpSignals(const Console& console) {
  // A reader that goes away must not end an install halfway.
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
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

std::string OneLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

Outcome Refused(ExitStatus exit, const Command& command, const char* result, const std::string& problem) {
  Outcome outcome{.exit = exit, .problems = {problem}};
  outcome.json["command"] = command.name;
  outcome.json["result"] = result;
  return outcome;
}

Outcome RunCommand(const Command& command, Context& context) {
  try {
    return command.run(context);
  } catch (const packctl::Busy& busy) {
    return Refused(packctl::kExitNotPermitted, command, "busy", busy.what());
  } catch (const std::exception& error) {
    return Refused(packctl::kExitFailed, command, "failed", error.what());
  }
}

void ComplainAll(const Console& console, const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) {
    console.Complain(problem);
  }
}

int Answer(const Command& command, bool json) {
  Console console;
  SetUpSignals(console);
  Context context{console, json};
  const Outcome outcome = RunCommand(command, context);
  const Console::Held held = console.TakeHeld();
  ComplainAll(console, held.other);
  if (outcome.exit == packctl::kExitFailed) {
    ComplainAll(console, held.log);
  }
  ComplainAll(console, outcome.problems);
  if (!console.Print(json ? OneLine(outcome.json) : outcome.text)) {
    console.Complain("cannot write to the standard output");
    return packctl::kExitFailed;
  }
  return outcome.exit;
}

}  // namespace

int main(int argc, char** argv) try {
  OpenStandardDescriptors();
  CLI::App app("Keeps the media codec pack up to date.", "packctl");
  bool json = false;
  app.require_subcommand(1);
  app.set_version_flag("--version", "packctl " PACKCTL_VERSION);
  app.add_flag("--json", json, kJsonHelp);
  app.footer(kFooter);
  for (const Command& command : kCommands) {
    CLI::App* const subcommand = app.add_subcommand(command.name, command.summary);
    subcommand->add_flag("--json", json, kJsonHelp);
    subcommand->footer(command.details);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    if (const std::vector<std::string> unknown = app.remaining(); code != 0 && !unknown.empty()) {
      std::cerr << "Not understood: " << unknown.front() << '\n';
    }
    return code == 0 ? packctl::kExitDone : packctl::kExitUsage;
  }
  for (const Command& command : kCommands) {
    if (app.got_subcommand(command.name)) {
      return Answer(command, json);
    }
  }
  return packctl::kExitUsage;
} catch (const std::exception& error) {
  std::cerr << "packctl: " << error.what() << '\n';
  return packctl::kExitFailed;
}
