#pragma once

#include "tools/packctl/cli/command.h"
#include "tools/packctl/cli/command_line.h"

/// The account commands as the command line tells of them. packctl only knows of them; orba-account runs them, so that
/// no other command pays for a web server and for signed tokens.
namespace orbamira::packctl {

constexpr Command SignInCommand(Outcome (*run)(Context&)) {
  constexpr const char* kDetails =
      "Prints an address to open in a browser, and waits for the answer of the OpenID Connect provider. To use a\n"
      "browser on another machine, forward the port of --port with ssh -L. The tokens are stored in\n"
      "a file that only root can read, and are never shown. Run it as root.\n"
      "With --json: first result (waiting) and address, then result (signed_in), user_id, issuer,\n"
      "expires (seconds since the epoch) and renewable.\n"
      "Example: packctl account sign-in --issuer https://accounts.example.com";
  return {"account sign-in", Effect::kNone, "Sign this appliance in to an account", kDetails, run, AddSignInOptions};
}

constexpr Command SignOutCommand(Outcome (*run)(Context&)) {
  constexpr const char* kDetails =
      "Asks the provider to revoke the refresh token, if it offers that, and removes the account and its tokens\n"
      "from this machine even if the provider does not answer.\n"
      "Exit status 2: nobody is signed in.\n"
      "With --json: result and revoked.";
  return {"account sign-out", Effect::kNone, "Sign this appliance out", kDetails, run};
}

constexpr Command AccountStatusCommand(Outcome (*run)(Context&)) {
  constexpr const char* kDetails =
      "Shows the user, the issuer, and how long the identity token is valid. Never shows a token.\n"
      "Exit status 2: nobody is signed in.\n"
      "With --json: result (signed_in), user_id, issuer, client_id, valid, expires (seconds since the epoch;\n"
      "null without a token) and renewable; or result (signed_out) alone.";
  return {"account status", Effect::kNone, "Show who is signed in", kDetails, run};
}

}  // namespace orbamira::packctl
