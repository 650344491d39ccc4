#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

// Checks that only root and our own user can change a file that we believe or run. Not installed.
namespace orbamira {

/// The user and group that may own a file, besides root's.
struct Identity {
  uid_t user;
  gid_t group;
};

/// The effective user and group of this process.
Identity Self();

/// Why somebody other than root and `self` can change a file with this status: everyone or a group may write it, or it
/// belongs to another user. Empty when nobody else can. `name` is the file's name in the answer.
std::string WhyDistrusted(const struct stat& status, const Identity& self, const std::string& name);

/// As above for this process and an open file, whose access control list counts too. Throws std::system_error when it
/// cannot be looked at.
std::string WhyDistrusted(int file, const std::string& name);

/// As above for `path` and for every folder and symbolic link on the way to it, from the root folder on (from
/// ORBAMIRA_ROOT for a path below that). Empty when only root and this process's user can change which file the path
/// leads to and what is in it; the path then is safe to use by its name, now and later. A sticky folder that all may
/// write, such as /tmp, is accepted on the way, but not at its end.
///
/// Throws std::system_error when the path cannot be followed.
std::string WhyDistrusted(const std::string& path);

}  // namespace orbamira
