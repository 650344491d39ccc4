#include "tools/packctl/cli/program.h"
#include "tools/packctl/commands/commands.h"

int main(int argc, char** argv) { return orbamira::packctl::Main(argc, argv, orbamira::packctl::PackctlCommands()); }
