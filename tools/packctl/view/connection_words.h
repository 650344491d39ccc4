#pragma once

#include <string>

/// Why no connection to a server came about.
namespace orbamira::packctl {

/// Makes what the transfer library says of a connection that failed short and definite: "127.0.0.1:8123: connection
/// refused". The library does not tell a refusal from an unreachable network, so this tries to connect once more and
/// waits for at most two seconds. Words about anything else come back as they are. Thread-safe.
std::string ConnectionWords(const std::string& words);

}  // namespace orbamira::packctl
