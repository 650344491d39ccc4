#pragma once

#include <istream>
#include <set>
#include <string>
#include <utility>

/// Whether programs use the installed pack.
namespace orbamira::packctl {

/// The files of a pack, by what tells them apart.
struct PackFiles {
  std::string folder;                                       ///< where the pack is
  std::set<std::pair<unsigned long, unsigned long>> files;  ///< device and inode of each
};

/// Looks at the files below the folder; none where there is no folder.
PackFiles FilesOf(const std::string& folder);

/// Whether one of the files is in this list of a process's mappings, as /proc/PID/maps has it. Some file systems give
/// their files another device there than everywhere else, so the name counts too.
bool AreMapped(const PackFiles& pack, std::istream& maps);

/// Whether a process has a file of the installed pack mapped, as every program has that loaded a library of it. What a
/// process does not let us see, for want of root's rights, does not count.
bool IsPackInUse();

/// Gives up the right to look into the processes of others, for this process and those that it starts. A service lends
/// it for the look alone; plugins have no need of it.
void GiveUpLookingIntoProcesses();

}  // namespace orbamira::packctl
