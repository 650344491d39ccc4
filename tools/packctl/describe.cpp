// Prints packctl's commands and options as JSON, for packaging/generate.py. Not installed.

#include <iostream>

#include "platform/json/json_line.h"
#include "tools/packctl/cli/command_line.h"
#include "tools/packctl/commands/commands.h"

int main() {
  std::cout << orbamira::JsonLine(orbamira::packctl::DescribeCommandLine(orbamira::packctl::PackctlCommands()));
}
