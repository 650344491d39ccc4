#pragma once

#include <sys/stat.h>

#include <ctime>
#include <string>
#include <vector>

namespace orbamira::tools {

/// Fills a new folder with what another one holds: the same names, contents, symbolic links, modes and modification
/// times, and the same owners when we may give files away. Extended attributes follow only where a file is linked.
///
/// A file is not copied if it can be helped: it becomes a second link to the same inode, or shares its blocks, and is
/// read and written only where the file system offers neither. So the source must not be written to afterwards; the
/// updater removes it. Anything but files, folders and symbolic links is an error, and so is a tree deeper than 256
/// folders: every folder on the way down holds two descriptors.
class TreeCopier {
 public:
  /// `target` is the open, empty folder to fill.
  explicit TreeCopier(int target);

  /// Copies all of the open folder `source`, and its own mode, owner and times; `shown` is its name in errors.
  /// Throws std::runtime_error or std::system_error, with part of the tree copied.
  void Copy(int source, const std::string& shown);

  /// Throws std::runtime_error, or std::system_error, unless the source still is what was copied: of a folder that
  /// somebody else was just removing or filling, the copy may lack a part. Call it last, when the copy is on disk.
  void CheckUnchanged(int source, const std::string& shown) const;

 private:
  /// What of an entry changes with it, but not by being linked or read.
  struct Seen {
    ino_t inode;
    nlink_t folders;  ///< of a folder: how many it holds, and none once it is removed
    off_t size;
    timespec modified;

    explicit Seen(const struct stat& status);
    bool operator==(const Seen& other) const;
  };

  static void Look(int folder, const std::string& shown, std::vector<Seen>& seen);
  void CopyFolder(int from, int to, const std::string& shown, int depth);
  void CopyFile(int from, int to, const std::string& name, const std::string& shown);
  bool Link(int from, int to, const std::string& name, const std::string& shown);

  int target_;
  struct stat target_status_;
  bool links_work_ = true;
  std::vector<Seen> seen_;  // in the order of their inodes, once all is copied
};

/// Waits until the file system that holds the open folder has everything on disk: one call for the whole tree, or one
/// for each file where the kernel has no such call. Throws std::system_error.
void MakeDurable(int folder, const std::string& shown);

}  // namespace orbamira::tools
