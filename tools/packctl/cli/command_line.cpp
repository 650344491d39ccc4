#include "tools/packctl/cli/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/posix/files.h"

namespace orbamira::packctl {
namespace {

struct ExitMeaning {
  ExitStatus exit;
  const char* meaning;
};

constexpr std::array kExitMeanings = {
    ExitMeaning{kExitDone, "done"},
    ExitMeaning{kExitFailed, "failed; the reason is on standard error and in the system log"},
    ExitMeaning{kExitNothingToDo, "nothing to do"},
    ExitMeaning{kExitNotPermitted, "not permitted by the recorded status, or another program is at work"},
    ExitMeaning{kExitUsage, "wrong usage"},
};

std::string Footer() {
  constexpr std::size_t kNumberWidth = 4;
  std::string footer = "Exit status:\n";
  for (const auto& [exit, meaning] : kExitMeanings) {
    std::string number = std::to_string(exit);
    number.resize(kNumberWidth, ' ');
    footer += "  " + number + meaning + "\n";
  }
  return footer +
         "\nWith --json, the answer of a command that failed or was refused has error: code, message and remedy.\n"
         "Of \"plugins\" and the commands that change something, only one runs at a time. The others run at any "
         "time.\n"
         "The environment variable ORBAMIRA_ROOT is put in front of every path, for example of a staged system.";
}

constexpr const char* kJsonHelp = "Print one JSON object instead of text";

constexpr const char* kVerboseHelp = "After a failure, also show the log";

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

CLI::Validator NumberBetween(int least, int most) { return CLI::Range(least, most).description(""); }

/// Takes a command line apart. It keeps its address: what is found on the line is written into it.
struct Parser {
  explicit Parser(std::span<const Command> known);
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  CLI::App app{"Keeps the media codec pack up to date.", "packctl"};
  std::vector<const CLI::App*> commands = {};  ///< the known ones, in their order
  Options options = {};
  const Command* chosen = nullptr;
};

Parser::Parser(std::span<const Command> known) {
  app.require_subcommand(1);
  app.set_version_flag("--version", "packctl " PACKCTL_VERSION);
  app.add_flag("--json", options.json, kJsonHelp);
  app.footer(Footer());
  for (const Command& command : known) {
    CLI::App* const subcommand = AddCommand(app, command);
    subcommand->add_flag("--json", options.json, kJsonHelp);
    if (command.effect == Effect::kChange) {
      subcommand->add_flag("-v,--verbose", options.verbose, kVerboseHelp);
    }
    if (command.add_options != nullptr) {
      command.add_options(*subcommand, options);
    }
    subcommand->footer(command.details);
    subcommand->callback([this, &command] { chosen = &command; });
    commands.push_back(subcommand);
  }
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
    return takes_command ? "name a command." : Printable(error.what()) + ".";
  }
  const std::string word = Printable(unknown.front());
  if (!takes_command || word.starts_with('-')) {
    return "\"" + word + "\" was not expected.";
  }
  const std::string nearest = NearestCommand(level, unknown.front());
  return "there is no command \"" + word + "\"" + (nearest.empty() ? "." : "; did you mean \"" + nearest + "\"?");
}

}  // namespace

ParsedLine ParseCommandLine(int argc, const char* const* argv, std::span<const Command> commands) {
  Parser parser(commands);
  try {
    parser.app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return {.exit = parser.app.exit(error) == 0 ? kExitDone : kExitUsage};  // help or version was asked for
    }
    std::cerr << "packctl: " << UsageProblem(parser.app, error) << " Run \"" << HelpCommand(parser.app)
              << "\" for help.\n";
    return {.exit = kExitUsage};
  }
  return {.invocation = Invocation{parser.chosen, parser.options}};
}

Json::Value DescribeCommandLine(std::span<const Command> commands) {
  Parser parser(commands);
  Json::Value described;
  described["name"] = parser.app.get_name();
  described["summary"] = parser.app.get_description();
  described["footer"] = Footer();
  described["options"] = DescribeOptions(parser.app);
  described["groups"][kAccount] = kAccountSummary;
  for (std::size_t i = 0; i < commands.size(); ++i) {
    Json::Value entry;
    entry["name"] = commands[i].name;
    entry["summary"] = commands[i].summary;
    entry["details"] = commands[i].details;
    entry["options"] = DescribeOptions(*parser.commands[i]);
    described["commands"].append(entry);
  }
  return described;
}

void AddWatchOption(CLI::App& parser, Options& options) {
  parser.add_flag("--watch", options.watch, "Show each change until interrupted");
}

void AddLimitOption(CLI::App& parser, Options& options) {
  parser.add_option("--limit", options.limit, "Show only the newest N entries")
      ->type_name("N")
      ->check(NumberBetween(0, 1000000));
}

void AddWebOptions(CLI::App& parser, Options& options) {
  WebOptions& web = options.web;
  parser.add_option("--listen", web.listen, "Listen on this numeric address (default 127.0.0.1); there is no TLS")
      ->type_name("ADDRESS");
  parser.add_option("--port", web.port, "Listen on this port (default 0: any free port)")
      ->type_name("N")
      ->check(NumberBetween(0, 65535));
  parser.add_option("--token-file", web.token_file, "Read the token from this file of mode 0600, and do not print it")
      ->type_name("FILE");
  parser.add_option("--host-name", web.host_names, "Also answer requests for this host name; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  parser.add_option("--update-unit", web.update_unit, "Start this systemd unit to update, instead of packctl update")
      ->type_name("UNIT");
}

void AddSignInOptions(CLI::App& parser, Options& options) {
  SignInOptions& sign_in = options.sign_in;
  parser.add_option("--issuer", sign_in.issuer, "The provider's address, exactly as the provider writes it")
      ->type_name("URL")
      ->required();
  parser.add_option("--client-id", sign_in.client_id, "The client's id at the provider (default orbamira-updater)")
      ->type_name("ID");
  parser.add_option("--port", sign_in.port, "Take the answer on this port of 127.0.0.1 (default: any free port)")
      ->type_name("N")
      ->check(NumberBetween(1, 65535));
  parser.add_option("--timeout", sign_in.timeout, "Seconds to wait for the answer (default 300)")
      ->type_name("SECONDS")
      ->check(NumberBetween(1, 24 * 60 * 60));
  parser.add_flag("--replace", sign_in.replace, "Replace the account that is signed in now");
}

}  // namespace orbamira::packctl
