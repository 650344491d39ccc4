#include "tools/packctl/cli/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/printable.h"
#include "tools/packctl/cli/help_text.h"
#include "tools/packctl/cli/nearest_word.h"
#include "tools/packctl/cli/version_text.h"

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
    ExitMeaning{kExitNotPermitted, "not permitted by the recorded status, or not confirmed"},
    ExitMeaning{kExitUsage, "wrong usage"},
    ExitMeaning{kExitBusy, "another program is at work; --wait waits for its end"},
    ExitMeaning{kExitCancelled, "cancelled by you; everything is in order"},
};

constexpr const char* kNotes =
    "With --json, the answer of a command that failed or was refused has error: code, message and remedy.\n"
    "Of \"plugins\" and the commands that change something, only one runs at a time. The others run at any time.";

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

std::string Footer() {
  constexpr std::size_t kNumberWidth = 4;
  constexpr std::size_t kNameWidth = 15;
  std::string footer = "Examples:\n";
  for (const auto& [command, meaning] : kExamples) {
    footer += std::string("  ") + command + "\n      " + meaning + "\n";
  }
  footer += "\nExit status:\n";
  for (const auto& [exit, meaning] : kExitMeanings) {
    footer += "  " + Padded(std::to_string(exit), kNumberWidth) + meaning + "\n";
  }
  footer += "\nEnvironment:\n";
  for (const auto& [name, meaning] : kEnvironment) {
    footer += "  " + Padded(name, kNameWidth) + meaning + "\n";
  }
  return footer + "\n" + kNotes;
}

constexpr const char* kJsonHelp = "Print one JSON object instead of text";
constexpr const char* kColorHelp =
    "Colour the text: auto (default; on a terminal, unless NO_COLOR is set), always or never";
constexpr const char* kVerboseHelp = "Also show what is behind the result, such as the log of a failure";
constexpr const char* kQuietHelp = "Show nothing but why it failed";
constexpr const char* kWaitHelp = "Wait so long for another program at work to end (default 0)";
constexpr const char* kHelp = "help";
constexpr const char* kHelpSummary = "Explain a command";
constexpr const char* kHelpDetails = "Example: packctl help history";
constexpr const char* kHelpArgument = "COMMAND";
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

void AddCommonOptions(CLI::App& app, Options& options) {
  app.add_flag("--json", options.json, kJsonHelp);
  app.add_option("--color", options.color, kColorHelp)
      ->type_name("WHEN")
      ->transform(CLI::CheckedTransformer(std::map<std::string, ColorChoice>{{"auto", ColorChoice::kAuto},
                                                                             {"always", ColorChoice::kAlways},
                                                                             {"never", ColorChoice::kNever}})
                      .description(""));
}

void AddOptionsOf(const Command& command, CLI::App& app, Options& options) {
  AddCommonOptions(app, options);
  app.add_flag("-v,--verbose", options.verbose, kVerboseHelp);
  if (command.effect == Effect::kChange) {
    app.add_flag("-q,--quiet", options.quiet, kQuietHelp);
  }
  if (command.effect != Effect::kNone) {
    app.add_option("--wait", options.wait, kWaitHelp)
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 24 * 60 * 60).description(""));
  }
  if (command.add_options != nullptr) {
    command.add_options(app, options);
  }
}

/// Takes a command line apart. It keeps its address: what is found on the line is written into it.
struct Parser {
  explicit Parser(std::span<const Command> known);
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  CLI::App app{"Keeps the media codec pack up to date.", "packctl"};
  std::vector<const CLI::App*> commands = {};  ///< the known ones, in their order
  Options options = {};
  const Command* chosen = nullptr;
  CLI::App* help = nullptr;
  std::vector<std::string> words = {};  ///< the command that help is asked for
};

Parser::Parser(std::span<const Command> known) {
  app.require_subcommand(1);
  app.set_version_flag("-V,--version", VersionText, "Print the versions of packctl and its libraries, and exit");
  AddCommonOptions(app, options);
  for (const Command& command : known) {
    CLI::App* const subcommand = AddCommand(app, command);
    AddOptionsOf(command, *subcommand, options);
    subcommand->footer(command.details);
    subcommand->callback([this, &command] { chosen = &command; });
    commands.push_back(subcommand);
  }
  help = app.add_subcommand(kHelp, kHelpSummary);
  help->add_option(kHelpArgument, words, "The command to explain, for example: history")
      ->type_name("...")
      ->expected(0, -1);
  help->footer(kHelpDetails);
  app.footer(Footer());  // last, so that commands do not inherit it
}

Json::Value DescribeTerm(const std::string& term, const char* meaning) {
  Json::Value described;
  described["term"] = term;
  described["meaning"] = meaning;
  return described;
}

Json::Value DescribeOptions(const CLI::App& app) {
  Json::Value described = Json::arrayValue;
  for (const CLI::Option* option : app.get_options(
           [](const CLI::Option* known) { return known->nonpositional() && !known->get_group().empty(); })) {
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

Json::Value DescribeCommand(const char* name, const char* summary, const char* details, const CLI::App& app) {
  Json::Value described;
  described["name"] = name;
  described["summary"] = summary;
  described["details"] = details;
  described["options"] = DescribeOptions(app);
  return described;
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& level) {
  return level.get_subcommands([](const CLI::App*) { return true; });
}

std::string NoSuchCommand(const CLI::App& level, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* command : CommandsOf(level)) {
    names.push_back(command->get_name());
  }
  return "there is no command \"" + Printable(word) + "\"." + DidYouMean(word, names);
}

std::string NoSuchOption(const CLI::App& level, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::Option* option : level.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return "there is no option \"" + Printable(word) + "\"." + DidYouMean(word, names);
}

// The innermost command that was named: of "account foo" it is account.
const CLI::App& NamedLevel(const CLI::App& app) {
  const auto named = app.get_subcommands();
  return named.empty() ? app : NamedLevel(*named.front());
}

// The command line that prints the help of this level.
std::string HelpCommand(const CLI::App& level) {
  std::string name;
  for (const CLI::App* at = &level; at != nullptr; at = at->get_parent()) {
    name.insert(0, at->get_name() + ' ');
  }
  return name + "--help";
}

// One sentence on what is wrong with the command line.
std::string UsageProblem(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App& level = NamedLevel(app);
  const bool takes_command = !CommandsOf(level).empty();
  const std::vector<std::string> unknown = app.remaining(true);
  if (unknown.empty()) {
    return takes_command ? "name a command." : Printable(error.what()) + ".";
  }
  if (unknown.front().starts_with('-')) {
    return NoSuchOption(level, unknown.front());
  }
  return takes_command ? NoSuchCommand(level, unknown.front())
                       : "\"" + Printable(unknown.front()) + "\" was not expected.";
}

ParsedLine WrongUsage(const CLI::App& level, const std::string& problem) {
  std::cerr << "packctl: " << problem << " Run \"" << HelpCommand(level) << "\" for help.\n";
  return {.exit = kExitUsage};
}

// The end of "packctl help WORDS" if no command has that name.
std::optional<ParsedLine> CheckHelpWords(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* level = &app;
  for (const std::string& word : words) {
    const auto commands = CommandsOf(*level);
    const auto named = std::find_if(commands.begin(), commands.end(),
                                    [&word](const CLI::App* command) { return command->get_name() == word; });
    if (named == commands.end()) {
      return WrongUsage(*level, NoSuchCommand(*level, word));
    }
    level = *named;
  }
  return std::nullopt;
}

// What "packctl WORDS --help" prints.
ParsedLine PrintHelp(const std::vector<std::string>& words, std::span<const Command> commands) {
  std::vector<const char*> line = {"packctl"};
  for (const std::string& word : words) {
    line.push_back(word.c_str());
  }
  line.push_back("--help");
  return ParseCommandLine(static_cast<int>(line.size()), line.data(), commands);
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
    return WrongUsage(NamedLevel(parser.app), UsageProblem(parser.app, error));
  }
  if (parser.help->parsed()) {
    const std::optional<ParsedLine> wrong = CheckHelpWords(parser.app, parser.words);
    return wrong ? *wrong : PrintHelp(parser.words, commands);
  }
  return {.invocation = Invocation{parser.chosen, parser.options}};
}

Json::Value DescribeCommandLine(std::span<const Command> commands) {
  Parser parser(commands);
  Json::Value described;
  described["name"] = parser.app.get_name();
  described["summary"] = parser.app.get_description();
  described["notes"] = kNotes;
  for (const auto& [exit, meaning] : kExitMeanings) {
    described["exit_statuses"].append(DescribeTerm(std::to_string(exit), meaning));
  }
  for (const auto& [name, meaning] : kEnvironment) {
    described["environment"].append(DescribeTerm(name, meaning));
  }
  for (const auto& [command, meaning] : kExamples) {
    described["examples"].append(DescribeTerm(command, meaning));
  }
  described["options"] = DescribeOptions(parser.app);
  described["groups"][kAccount] = kAccountSummary;
  for (std::size_t i = 0; i < commands.size(); ++i) {
    described["commands"].append(
        DescribeCommand(commands[i].name, commands[i].summary, commands[i].details, *parser.commands[i]));
  }
  Json::Value help = DescribeCommand(kHelp, kHelpSummary, kHelpDetails, *parser.help);
  help["argument"] = kHelpArgument;
  described["commands"].append(help);
  return described;
}

}  // namespace orbamira::packctl
