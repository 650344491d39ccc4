#include <algorithm>
#include <array>
#include <exception>
#include <iostream>
#include <string_view>

#include "tools/packctl/account.h"
#include "tools/packctl/command_line.h"
#include "tools/packctl/program.h"

namespace {

namespace packctl = orbamira::packctl;

struct Function {
  std::string_view command;
  packctl::Outcome (*run)(packctl::Context&);
};

constexpr std::array kFunctions = {
    Function{"account sign-in", packctl::SignIn},
    Function{"account sign-out", packctl::SignOut},
    Function{"account status", packctl::AccountStatus},
};

packctl::Outcome Run(const packctl::Command& command, packctl::Context& context) {
  const auto* const function =
      std::find_if(kFunctions.begin(), kFunctions.end(), [&](const Function& f) { return f.command == command.name; });
  try {
    return function->run(context);
  } catch (const std::exception& error) {
    return packctl::Refused(packctl::kExitFailed, command, "failed", error.what());
  }
}

}  // namespace

// Called by packctl alone, with its own command line.
int main(int argc, char** argv) try {
  packctl::OpenStandardDescriptors();
  const packctl::ParsedLine line = packctl::ParseCommandLine(argc, argv);
  if (!line.invocation) {
    return line.exit;
  }
  if (line.invocation->command->effect != packctl::Effect::kOwnProgram) {
    std::cerr << "packctl: use packctl for this command\n";
    return packctl::kExitUsage;
  }
  return packctl::Answer(*line.invocation, Run);
} catch (const std::exception& error) {
  std::cerr << "packctl: " << error.what() << '\n';
  return packctl::kExitFailed;
}
