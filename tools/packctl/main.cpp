#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "tools/packctl/cli/command_line.h"
#include "tools/packctl/cli/program.h"
#include "tools/packctl/cli/run.h"

namespace {

namespace packctl = orbamira::packctl;

// The account commands need a web server and a library for signed tokens, which no other command is to pay for. Their
// program takes the command line as it is.
[[noreturn]] void BecomeAccountProgram(char** argv) {
  const std::filesystem::path program =
      std::filesystem::path(orbamira::path::kOrbaArchivePath).replace_filename("orba-account");
  execv(program.c_str(), argv);
  throw std::system_error(errno, std::generic_category(), "cannot run " + program.string());
}

}  // namespace

int main(int argc, char** argv) {
  return packctl::Main(argc, argv, [argv](const packctl::Invocation& invocation) {
    if (invocation.command->effect == packctl::Effect::kOwnProgram) {
      BecomeAccountProgram(argv);
    }
    return packctl::Answer(invocation, packctl::Run);
  });
}
