#include "tools/packctl/cli/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/posix/files.h"

namespace orbamira::packctl {
namespace {

constexpr std::array kCommands = {
    Command{"check", Effect::kChange, "Ask the update server for a new pack",
            "Records a newer pack as waiting for download, whatever the recorded status was.\n"
            "Exit status: 0 a new pack is available, 2 nothing new, or no update server is named, 1 the check failed.\n"
            "Example: packctl check && packctl update"},
    Command{"download", Effect::kChange, "Download and verify the pack on offer",
            "Permitted when the status is need_download or download_failed. Nothing is installed yet; follow with\n"
            "\"packctl install\"."},
    Command{"install", Effect::kChange, "Install the downloaded pack",
            "Permitted when the status is need_install or install_failed. Applications are told before and after.\n"
            "When it fails, the previous pack comes back."},
    Command{"update", Effect::kChange, "Download the pack on offer and install it",
            "Permitted when the status is lost, need_download, need_install, download_install_failed or up_to_date.\n"
            "The versions are not compared: the pack on offer is fetched even if it is installed already. Run\n"
            "\"packctl check\" first to fetch only what is new. When it fails, the previous pack comes back."},
    Command{"remove", Effect::kChange, "Remove the installed pack",
            "Applications are not told, and the recorded status stays as it is. Not permitted while that says work is\n"
            "under way.\n"
            "Exit status 2: no pack is installed."},
    Command{"status", Effect::kNone, "Show the recorded status and progress",
            "May be run at any time, also while an update is running. With --json the keys are those of the status\n"
            "store; sizes are numbers of bytes.\n"
            "With --watch each change is shown as it comes, until SIGINT or SIGTERM (Ctrl-C) ends it with exit status\n"
            "0; with --json too, one object a line. It sleeps while nothing changes."},
    Command{
        "info", Effect::kNone, "Show the installed pack",
        "With --json: installed, package, version, and updated in seconds since the epoch; the last three are null\n"
        "without a pack. Exit status 0 also when none is installed."},
    Command{"history", Effect::kNone, "Show what was done, when and how it ended",
            "Tells of each check, download, install, update, remove and recover that changed something, found a new\n"
            "pack or failed, oldest first. At most half a mebibyte is kept. A run that was killed leaves no entry;\n"
            "the recovery after it does.\n"
            "With --json: the list entries, and damaged, the count of lines that could not be read. An entry has time\n"
            "(seconds since the epoch, at its end), duration_ms, command, from (the pack that was installed before),\n"
            "to (the pack that is installed or waits since), result, status, exit and errors."},
    Command{"doctor", Effect::kNone, "Look for what is wrong and say what to do about it",
            "Looks at the settings, permissions, keyring, plugins, locks, the state of the pack and its record, the\n"
            "update server, the clock and the free space. Changes nothing. Each plugin is asked for its ids, and the\n"
            "server for its offer. Takes half a minute when the server is silent. Run it as root.\n"
            "Exit status: 0 all is well, 1 something is wrong.\n"
            "With --json: result (well or faults) and the list findings of check, problem and remedy."},
    Command{"codecs", Effect::kNone, "Show which codecs are installed and which are asked for",
            "With --json: the lists installed and requested."},
    Command{
        "web", Effect::kNone, "Show all of this in a browser, until interrupted",
        "Prints the page's address, and a link with the token that checking and updating from the page takes. Runs\n"
        "until SIGINT or SIGTERM (Ctrl-C) ends it with exit status 0; an update that was begun goes on.\n"
        "A listening socket that systemd hands over (LISTEN_FDS) is used in place of --listen and --port.\n"
        "With --json: address and token, which is null with --token-file."},
    Command{"plugins", Effect::kExclusive, "List the plugins that are told of installs",
            "Prints one application id a line; with --json: the list app_ids."},
    Command{
        "account sign-in", Effect::kOwnProgram, "Sign this appliance in to an account",
        "Prints an address to open in a browser, on this machine or, through ssh, on another (ssh -L with the port\n"
        "of --port), and waits for the answer of the OpenID Connect provider. Its tokens are kept in\n"
        "/etc/orbamira/account.json, which only root reads, and are never shown. Run it as root.\n"
        "With --json: first result (waiting) and address, in the end result (signed_in), user_id, issuer,\n"
        "expires (seconds since the epoch) and renewable.\n"
        "Example: packctl account sign-in --issuer https://accounts.example.com"},
    Command{"account sign-out", Effect::kOwnProgram, "Sign this appliance out",
            "Has the provider revoke the refresh token, where it offers that, and removes the account and its tokens\n"
            "from this machine, also when the provider does not answer.\n"
            "Exit status 2: nobody is signed in.\n"
            "With --json: result and revoked."},
    Command{"account status", Effect::kOwnProgram, "Show who is signed in",
            "Shows the user, the issuer, and until when the identity token is valid; never a token.\n"
            "Exit status 2: nobody is signed in.\n"
            "With --json: result (signed_in), user_id, issuer, client_id, valid, expires (seconds since the epoch;\n"
            "null without a token) and renewable; or result (signed_out) alone."},
    Command{
        "recover", Effect::kChange, "Clear what an interrupted update left behind",
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
    "  3   not permitted by the recorded status, or another program is at work\n"
    "  64  wrong usage\n"
    "\n"
    "Commands that change something exclude each other, and plugins; the others run at any time.\n"
    "The environment variable ORBAMIRA_ROOT stands in front of every path: a staged system is served in place.";

constexpr const char* kJsonHelp = "Print one JSON object instead of text";

constexpr const char* kVerboseHelp = "After a failure, show what was logged too";

constexpr const char* kAccount = "account";
constexpr const char* kAccountSummary = "Sign in to an account, sign out, show who is signed in";

// The name of a command that belongs to the group begins with the group's.
bool IsOfAccount(std::string_view name) { return name.starts_with(std::string(kAccount) + ' '); }

std::string OwnName(std::string_view name) { return std::string(name.substr(name.find(' ') + 1)); }

CLI::App* AddCommand(CLI::App& app, const Command& command) {
  if (!IsOfAccount(command.name)) {
    return app.add_subcommand(command.name, command.summary);
  }
  const auto groups = app.get_subcommands([](const CLI::App* present) { return present->get_name() == kAccount; });
  CLI::App* const group =
      groups.empty() ? app.add_subcommand(kAccount, kAccountSummary)->require_subcommand(1) : groups.front();
  return group->add_subcommand(OwnName(command.name), command.summary);
}

CLI::App* FindCommand(CLI::App& app, const Command& command) {
  return IsOfAccount(command.name) ? app.get_subcommand(kAccount)->get_subcommand(OwnName(command.name))
                                   : app.get_subcommand(command.name);
}

CLI::Validator NumberBetween(int least, int most) { return CLI::Range(least, most).description(""); }

void AddSignInOptions(CLI::App& command, SignInOptions& options) {
  command.add_option("--issuer", options.issuer, "The provider, as it names itself")->type_name("URL")->required();
  command.add_option("--client-id", options.client_id, "What the provider calls this client, if not orbamira-updater")
      ->type_name("ID");
  command.add_option("--port", options.port, "Take the answer at this port of 127.0.0.1, not at any free one")
      ->type_name("N")
      ->check(NumberBetween(1, 65535));
  command.add_option("--timeout", options.timeout, "Wait so long for the answer, 300 seconds if not told")
      ->type_name("SECONDS")
      ->check(NumberBetween(1, 24 * 60 * 60));
  command.add_flag("--replace", options.replace, "Give up the account that is signed in now");
}

void AddWebOptions(CLI::App& web, WebOptions& options) {
  web.add_option("--listen", options.listen, "Listen at this numeric address (by default 127.0.0.1); there is no TLS")
      ->type_name("ADDRESS");
  web.add_option("--port", options.port, "Listen at this port; 0, the default, is one that is free")
      ->type_name("N")
      ->check(NumberBetween(0, 65535));
  web.add_option("--token-file", options.token_file, "Take the token from this file of mode 0600, and do not print it")
      ->type_name("FILE");
  web.add_option("--host-name", options.host_names, "Answer requests for this host too; may be given again")
      ->type_name("NAME")
      ->allow_extra_args(false);
  web.add_option("--update-unit", options.update_unit, "Update by starting this systemd unit, not packctl update")
      ->type_name("UNIT");
}

// The parser, which writes what it finds into `options`.
std::unique_ptr<CLI::App> MakeApp(Options& options) {
  auto app = std::make_unique<CLI::App>("Keeps the media codec pack up to date.", "packctl");
  app->require_subcommand(1);
  app->set_version_flag("--version", "packctl " PACKCTL_VERSION);
  app->add_flag("--json", options.json, kJsonHelp);
  app->footer(kFooter);
  for (const Command& command : kCommands) {
    CLI::App* const subcommand = AddCommand(*app, command);
    subcommand->add_flag("--json", options.json, kJsonHelp);
    if (command.effect == Effect::kChange) {
      subcommand->add_flag("-v,--verbose", options.verbose, kVerboseHelp);
    }
    subcommand->footer(command.details);
  }
  app->get_subcommand("status")->add_flag("--watch", options.watch, "Go on showing each change until interrupted");
  app->get_subcommand("history")
      ->add_option("--limit", options.limit, "Show only the newest N entries")
      ->type_name("N")
      ->check(NumberBetween(0, 1000000));
  AddSignInOptions(*app->get_subcommand(kAccount)->get_subcommand("sign-in"), options.sign_in);
  AddWebOptions(*app->get_subcommand("web"), options.web);
  return app;
}

Json::Value DescribeOptions(const CLI::App& app) {
  Json::Value described = Json::arrayValue;
  for (const CLI::Option* option : app.get_options()) {
    Json::Value entry;
    for (const std::string& name : option->get_snames()) {
      entry["names"].append("-" + name);
    }
    for (const std::string& name : option->get_lnames()) {
      entry["names"].append("--" + name);
    }
    entry["help"] = option->get_description();
    const bool is_flag = option->get_expected_max() == 0;
    entry["value"] = is_flag ? Json::Value() : Json::Value(option->get_type_name());
    described.append(entry);
  }
  return described;
}

// How many letters must be added, removed or exchanged to make one text of the other.
std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t substituted = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({substituted, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

// The command of this level that the word was most likely meant as; empty when none is near.
std::string NearestCommand(const CLI::App& level, const std::string& word) {
  std::size_t nearest = std::max<std::size_t>(2, word.size() / 3) + 1;
  std::string name;
  for (const CLI::App* command : level.get_subcommands([](const CLI::App*) { return true; })) {
    if (const std::size_t distance = EditDistance(word, command->get_name()); distance < nearest) {
      nearest = distance;
      name = command->get_name();
    }
  }
  return name;
}

// The innermost command that was named: of "account foo" it is account.
const CLI::App& NamedLevel(const CLI::App& app) {
  const auto named = app.get_subcommands();
  return named.empty() ? app : NamedLevel(*named.front());
}

std::string HelpCommand(const CLI::App& app) {
  const CLI::App& level = NamedLevel(app);
  std::string name;
  for (const CLI::App* at = &level; at != nullptr; at = at->get_parent()) {
    name.insert(0, at->get_name() + ' ');
  }
  return name + "--help";
}

// One sentence on what is wrong with the command line.
std::string UsageProblem(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& level = NamedLevel(app);
  const bool takes_command = !level.get_subcommands([](const CLI::App*) { return true; }).empty();
  const std::vector<std::string> unknown = app.remaining(true);
  if (unknown.empty()) {
    return takes_command ? "name a command." : tools::Printable(error.what()) + ".";
  }
  const std::string word = tools::Printable(unknown.front());
  if (!takes_command || word.starts_with('-')) {
    return "\"" + word + "\" was not expected.";
  }
  const std::string nearest = NearestCommand(level, unknown.front());
  return "there is no command \"" + word + "\"" + (nearest.empty() ? "." : "; did you mean \"" + nearest + "\"?");
}

}  // namespace

ParsedLine ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  const auto app = MakeApp(options);
  try {
    app->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return {.exit = app->exit(error) == 0 ? kExitDone : kExitUsage};  // help or version was asked for
    }
    std::cerr << "packctl: " << UsageProblem(*app, error) << " Run \"" << HelpCommand(*app) << "\" for help.\n";
    return {.exit = kExitUsage};
  }
  for (const Command& command : kCommands) {
    if (FindCommand(*app, command)->parsed()) {
      return {.invocation = Invocation{&command, options}};
    }
  }
  throw std::logic_error("no command was parsed");
}

Json::Value DescribeCommandLine() {
  Options options;
  const auto app = MakeApp(options);
  Json::Value described;
  described["name"] = app->get_name();
  described["summary"] = app->get_description();
  described["footer"] = kFooter;
  described["options"] = DescribeOptions(*app);
  described["groups"][kAccount] = kAccountSummary;
  for (const Command& command : kCommands) {
    Json::Value entry;
    entry["name"] = command.name;
    entry["summary"] = command.summary;
    entry["details"] = command.details;
    entry["options"] = DescribeOptions(*FindCommand(*app, command));
    described["commands"].append(entry);
  }
  return described;
}

}  // namespace orbamira::packctl
