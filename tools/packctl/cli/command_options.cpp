#include <CLI/CLI.hpp>

#include "tools/packctl/cli/command_line.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kDespiteHoldHelp = "Install although updates are held";
constexpr const char* kOlderHelp = "Install the pack even if it is older, below the minimum or past its last day";

CLI::Validator NumberBetween(int least, int most) { return CLI::Range(least, most).description(""); }

}  // namespace

void AddWatchOption(CLI::App& parser, Options& options) {
  parser.add_flag("--watch", options.watch, "Show each change until interrupted");
}

void AddCancelOption(CLI::App& parser, Options& options) {
  parser.add_flag("--cancelled", options.cancelled)->group("");  // for packctl alone: it is in no help
}

void AddRemoveOptions(CLI::App& parser, Options& options) {
  AddCancelOption(parser, options);
  parser.add_flag("-y,--yes", options.yes, "Remove the pack without asking, even if an application needs it");
}

void AddRollbackOptions(CLI::App& parser, Options& options) {
  AddCancelOption(parser, options);
  parser.add_flag("-y,--yes", options.yes, "Go back without asking");
}

void AddDownloadOptions(CLI::App& parser, Options& options) {
  AddCancelOption(parser, options);
  parser.add_flag("--now", options.now, "Take a staged release even if this appliance is not in its share yet");
}

void AddUpdateOptions(CLI::App& parser, Options& options) {
  AddDownloadOptions(parser, options);
  parser.add_flag("--despite-hold", options.despite_hold, kDespiteHoldHelp);
  parser.add_flag("--reinstall", options.reinstall,
                  "Install the pack on offer even if it is installed already, or was rejected");
  parser.add_flag("--allow-older", options.older, kOlderHelp);
  parser.add_flag("--automatic", options.automatic, "Do what the update policy says with the pack that a check found");
}

void AddHoldOptions(CLI::App& parser, Options& options) {
  parser.add_option("--until", options.until, "End the hold by itself at this date, for example 2026-12-24")
      ->type_name("DATE");
}

void AddInstallOptions(CLI::App& parser, Options& options) {
  AddCancelOption(parser, options);
  parser.add_flag("--despite-hold", options.despite_hold, kDespiteHoldHelp);
  CLI::Option* const file =
      parser.add_option("--file", options.file, "Install this signed package, from a stick for example")
          ->type_name("FILE");
  parser.add_flag("--trust", options.trust, "Install the file even if no signature vouches for it")->needs(file);
  parser.add_flag("--reinstall", options.reinstall, "Install the file even if its version is installed")->needs(file);
  parser.add_flag("--allow-older", options.older, kOlderHelp);
}

void AddHistoryOptions(CLI::App& parser, Options& options) {
  parser.add_option("--limit", options.limit, "Show only the newest N entries (default 50)")
      ->type_name("N")
      ->check(NumberBetween(0, 1000000));
  parser.add_flag("--no-pager", options.no_pager, "Print the entries without a pager, on a terminal too");
}

void AddMetricsOptions(CLI::App& parser, Options& options) {
  parser.add_option("--output", options.output, "Replace this file in one step, and print nothing")->type_name("FILE");
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
