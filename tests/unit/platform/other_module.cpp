#include "platform/network/module.h"

// A network module of another version than any library asks for.
const orbamira::Network* orbamira_network(const char* /*version*/) { return nullptr; }
