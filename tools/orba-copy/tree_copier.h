#pragma once

#include <sys/stat.h>

#include <ctime>
#include <string>
#include <vector>

namespace orbamira::tools {

/// Copies the contents of one folder into another, empty one: names, contents, symbolic links, modes, modification
/// times and, as root, owners. Extended attributes are kept only where a file is linked.
///
/// Avoids copying bytes: a file becomes a second link to the same inode, or shares its blocks, and is read and written
/// only where the file system supports neither. So nobody may write to the source afterwards; the updater removes it.
/// Anything but files, folders and symbolic links is an error. So is a tree deeper than 256 folders, because each level
/// needs two descriptors.
class TreeCopier {
 public:
  /// `target` is the open, empty folder to fill.
  explicit TreeCopier(int target);

  /// Copies everything in the open folder `source`, and its own mode, owner and times; `shown` is its name in errors.
  /// Throws std::runtime_error or std::system_error; a part may then be copied.
  void Copy(int source, const std::string& shown);

  /// Throws std::runtime_error or std::system_error when the source has changed since it was copied: the copy of a
  /// folder that somebody else was removing or filling may lack a part. Call it last, when the copy is on disk.
  void CheckUnchanged(int source, const std::string& shown) const;

 private:
  /// What tells that an entry has changed, and stays when it is only linked or read.
  struct Seen {
    ino_t inode;
    nlink_t folders;  ///< a folder's link count, which tells of subfolders, and 0 once it is removed; else 0
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
  std::vector<Seen> seen_;  // in the order of the copy, which follows the names
};

/// Waits until everything in the open folder is on disk: by one call for its whole file system, or by one for each file
/// where the kernel lacks that call. Throws std::system_error.
void MakeDurable(int folder, const std::string& shown);

}  // namespace orbamira::tools
