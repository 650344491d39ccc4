#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

// Who else than root could have written what is believed, or run with root's rights. Not installed.
namespace orbamira {

/// The user and group that a file may belong to besides root's.
struct Identity {
  uid_t user;
  gid_t group;
};

/// The effective user and group of this process.
Identity Self();

/// Why others than root and `self` can change a file with this status: that everyone, or a group, may write it, or that
/// it belongs to another user. Empty when they cannot. `name` is what the file is called in the answer.
std::string WhyDistrusted(const struct stat& status, const Identity& self, const std::string& name);

/// As above for `path`, and for every folder and link on the way there: from the root folder (the one that
/// ORBAMIRA_ROOT names, for a path below it) to the file that the last link leads to. Empty when nobody but root and
/// this process's user can change what the path leads to, or what is in it; it may then be used by its name, now and
/// later. On the way, though not at its end, a folder that all may write is no harm where it is sticky, as /tmp is.
///
/// Throws std::system_error when the path cannot be followed.
std::string WhyDistrusted(const std::string& path);

}  // namespace orbamira
