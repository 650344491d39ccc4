#include "tools/orba-archive/extractor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "tools/orba-archive/member_name.h"

namespace orbamira::tools {
namespace {

constexpr mode_t kModes = 0755;
// A file of this size keeps the disk busy; smaller ones are better written together.
constexpr uint64_t kLargeFile = 1UL << 20;

void WriteAt(int fd, const Piece& piece, const std::string& name) {
  size_t done = 0;
  while (done < piece.data.size()) {
    const ssize_t count =
        pwrite(fd, piece.data.data() + done, piece.data.size() - done, static_cast<off_t>(piece.offset + done));
    if (count >= 0) {
      done += static_cast<size_t>(count);
    } else if (errno != EINTR) {
      ThrowErrno(name);
    }
  }
}

}  // namespace

Extractor::Extractor(int folder, uint64_t limit) : folder_(folder), budget_(folder, limit) {}

void Extractor::Unpack(ArchiveReader& archive) {
  archive.ForEach([&](const Member& member) { Place(archive, member); });
}

void Extractor::Place(ArchiveReader& archive, const Member& member) {
  const std::vector<std::string_view> parts = SplitMemberName(member.name);
  if (parts.empty()) {
    if (member.kind == Member::Kind::kFolder) {
      return;  // the folder itself, which exists
    }
    throw std::runtime_error("not a name for a file");
  }
  const std::string name(parts.back());
  switch (member.kind) {
    case Member::Kind::kFile:
      PlaceFile(archive, member, OpenParent(parts), name);
      return;
    case Member::Kind::kFolder:
      if (fchmod(EnterFolder(OpenParent(parts), name).get(), (member.mode & kModes) | S_IRWXU) != 0) {
        ThrowErrno(name);
      }
      return;
    case Member::Kind::kSymlink:
      CheckSymlinkTarget(member.target, parts.size() - 1);
      budget_.Take(member.target.size());
      if (symlinkat(member.target.c_str(), OpenParent(parts), name.c_str()) != 0) {
        ThrowErrno(name);
      }
      return;
    case Member::Kind::kHardLink:
      PlaceHardLink(member, OpenParent(parts), name);
      return;
    case Member::Kind::kOther:
      throw std::runtime_error("neither a file, a folder nor a link");
  }
}

void Extractor::PlaceFile(ArchiveReader& archive, const Member& member, int parent, const std::string& name) {
  budget_.Take(member.size);
  const UniqueFd file(
      openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, member.mode & kModes));
  if (!file.valid()) {
    ThrowErrno(name);
  }
  uint64_t written = 0;
  Piece piece;
  while (archive.Read(piece)) {
    WriteAt(file.get(), piece, name);
    written = std::max(written, piece.offset + piece.data.size());
  }
  if (written < member.size && ftruncate(file.get(), static_cast<off_t>(member.size)) != 0) {
    ThrowErrno(name);
  }
  files_.insert(Stat(file.get(), name).st_ino);
  // Starts writing to the disk now, so that a later sync finds most of it done.
  if (member.size >= kLargeFile) {
    static_cast<void>(sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE));
  }
}

void Extractor::PlaceHardLink(const Member& member, int parent, const std::string& name) {
  const std::vector<std::string_view> parts = SplitMemberName(member.target);
  if (parts.empty()) {
    throw std::runtime_error("a link to no file");
  }
  // Opens the folders again: `parent` belongs to the cache, which must not change.
  UniqueFd folder;
  int at = folder_;
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    folder = OpenDirectory(at, std::string(parts[i]), member.target);
    at = folder.get();
  }
  const std::string file(parts.back());
  if (!files_.contains(StatName(at, file, member.target).st_ino)) {
    throw std::runtime_error("a link to a file that is not in this archive");
  }
  budget_.Take(0);
  if (linkat(at, file.c_str(), parent, name.c_str(), 0) != 0) {
    ThrowErrno(name);
  }
}

/// Opens the folder `name` and creates it when it is missing. A symbolic link is an error.
UniqueFd Extractor::EnterFolder(int at, const std::string& name) {
  UniqueFd folder(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.valid()) {
    return folder;
  }
  if (errno != ENOENT) {
    ThrowErrno(name);
  }
  budget_.Take(UnpackBudget::kFolder);
  if (mkdirat(at, name.c_str(), kModes) != 0) {
    ThrowErrno(name);
  }
  return OpenDirectory(at, name, name);
}

/// Opens the folder for the last of `parts`, and creates missing folders.
int Extractor::OpenParent(const std::vector<std::string_view>& parts) {
  std::string path;
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    path.append(parts[i]).append("/");
  }
  if (path.empty()) {
    return folder_;
  }
  if (path != parent_path_) {
    UniqueFd folder;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
      folder = EnterFolder(i == 0 ? folder_ : folder.get(), std::string(parts[i]));
    }
    parent_ = std::move(folder);
    parent_path_ = std::move(path);
  }
  return parent_.get();
}

}  // namespace orbamira::tools
