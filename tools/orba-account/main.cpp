#include <array>

#include "tools/orba-account/account.h"
#include "tools/packctl/cli/program.h"

namespace {

namespace packctl = orbamira::packctl;

constexpr std::array kFunctions = {
    packctl::Function{"account sign-in", packctl::SignIn},
    packctl::Function{"account sign-out", packctl::SignOut},
    packctl::Function{"account status", packctl::AccountStatus},
};

packctl::Outcome Run(const packctl::Command& command, packctl::Context& context) {
  return packctl::Attempt(command, context, kFunctions);
}

}  // namespace

// Called by packctl alone, with its own command line.
int main(int argc, char** argv) {
  return packctl::Main(argc, argv,
                       [](const packctl::Invocation& invocation) { return packctl::Answer(invocation, Run); });
}
