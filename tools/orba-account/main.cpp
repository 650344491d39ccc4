#include <array>

#include "tools/orba-account/account.h"
#include "tools/packctl/cli/account_commands.h"
#include "tools/packctl/cli/program.h"

namespace packctl = orbamira::packctl;

// Only packctl calls this program, with its own command line.
int main(int argc, char** argv) {
  constexpr std::array kCommands = {
      packctl::SignInCommand(packctl::SignIn),
      packctl::SignOutCommand(packctl::SignOut),
      packctl::AccountStatusCommand(packctl::AccountStatus),
  };
  return packctl::Main(argc, argv, kCommands);
}
