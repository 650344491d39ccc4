// Prints packctl's commands and options, and the keys of the settings, as JSON for packaging/generate.py. Not
// installed.

#include <iostream>

#include "platform/json/json_line.h"
#include "tools/packctl/cli/command_line.h"
#include "tools/packctl/commands/commands.h"
#include "tools/packctl/doctor/known_settings.h"

int main() {
  using namespace orbamira::packctl;
  Json::Value described = DescribeCommandLine(PackctlCommands());
  described["settings"] = DescribeSettings();
  std::cout << orbamira::JsonLine(described);
}
