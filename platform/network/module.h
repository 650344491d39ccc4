#pragma once

#include "platform/network/network.h"

// How the platform's library and its network module find each other. Not installed.

/// The module's services; null when it is not of the version that the library asks for.
extern "C" ORBAMIRA_EXPORT const orbamira::Network* orbamira_network(const char* version);
