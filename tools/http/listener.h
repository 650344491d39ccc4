#pragma once

#include <optional>
#include <string>

#include "platform/posix/unique_fd.h"

/// The socket that a web server listens at.
namespace orbamira::packctl {

/// A socket that listens at the numeric address; port 0 takes a free one. Throws std::system_error, or
/// std::runtime_error for an address that is none.
UniqueFd Listen(const std::string& address, int port);

/// The listening socket that the service manager opened for this process, as LISTEN_PID and LISTEN_FDS say; empty when
/// there is none. Throws std::runtime_error when they name anything but one listening socket. To be called once.
std::optional<UniqueFd> InheritedListener();

}  // namespace orbamira::packctl
