// Prints packctl's commands and options as JSON, for packaging/generate.py. Not installed.

#include <iostream>

#include "tools/packctl/cli/command_line.h"
#include "tools/packctl/view/json_line.h"

int main() { std::cout << orbamira::packctl::JsonLine(orbamira::packctl::DescribeCommandLine()); }
