#include "tests/fuzz/untar.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <optional>
#include <set>
#include <stdexcept>

#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"
#include "tools/orba-archive/archive_reader.h"
#include "tools/orba-archive/extractor.h"
#include "tools/orba-archive/member_name.h"
#include "tools/orba-archive/package.h"

namespace orbamira::fuzz {
namespace {

namespace fs = std::filesystem;

using tools::ArchiveReader;
using tools::Layer;
using tools::Member;

constexpr uint64_t kLimit = 1UL << 20U;
constexpr const char* kKept = "kept before\n";

/// The folder to unpack into, with one file in it, a neighbour that is not to be touched, and a current folder.
class Yard {
 public:
  Yard() {
    umask(0);                                                // as the program does,
    static_cast<void>(std::setlocale(LC_CTYPE, "C.UTF-8"));  // and this too
    test::WriteFile(beside_ / "kept", kKept);
    fs::create_directories(current_);
    before_ = StateOf(beside_ / "kept");
  }

  [[nodiscard]] const fs::path& into() const { return into_; }
  [[nodiscard]] const fs::path& current() const { return current_; }

  void Prepare() const {
    fs::remove_all(into_);
    test::WriteFile(into_ / "kept", kKept);
    fs::permissions(into_, fs::perms(0755));
    fs::permissions(into_ / "kept", fs::perms(0644));
  }

  void CheckOutside() const {
    Require(NamesIn(test::Root()) == std::set<std::string>{"yard"}, "nothing is made in the root");
    Require(NamesIn(yard_) == std::set<std::string>{"beside", "current", "into"}, "nothing is made beside the folder");
    Require(NamesIn(beside_) == std::set<std::string>{"kept"}, "nothing is made in another folder");
    Require(fs::is_empty(current_), "nothing is made in the current folder");
    Require(StateOf(beside_ / "kept") == before_ && test::ReadFile(beside_ / "kept") == kKept,
            "no other file is touched");
    Require(fs::symlink_status(kEscape).type() == fs::file_type::not_found, "nothing is made at an absolute name");
  }

  void CheckNothingInside() const {
    Require(NamesIn(into_) == std::set<std::string>{"kept"}, "nothing is left of a package that was refused");
  }

 private:
  using State = std::array<uint64_t, 5>;

  static std::set<std::string> NamesIn(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  static State StateOf(const fs::path& file) {
    struct stat status = {};
    Require(lstat(file.c_str(), &status) == 0, "the other file is still there");
    return {status.st_ino, status.st_mode, status.st_nlink, static_cast<uint64_t>(status.st_mtim.tv_sec),
            static_cast<uint64_t>(status.st_mtim.tv_nsec)};
  }

  fs::path yard_ = test::Root() / "yard";
  fs::path beside_ = yard_ / "beside";
  fs::path current_ = yard_ / "current";
  fs::path into_ = yard_ / "into";
  State before_ = {};
};

/// The current folder, for the life of the object: the fuzzer's own names are relative to another.
class CurrentFolder {
 public:
  explicit CurrentFolder(const fs::path& folder) { fs::current_path(folder); }
  ~CurrentFolder() { fs::current_path(before_); }
  CurrentFolder(const CurrentFolder&) = delete;
  CurrentFolder& operator=(const CurrentFolder&) = delete;

 private:
  fs::path before_ = fs::current_path();
};

UniqueFd Put(const std::string& bytes) {
  UniqueFd file(memfd_create("archive", MFD_CLOEXEC));
  WriteFully(file.get(), bytes.data(), bytes.size(), "archive");
  return file;
}

bool Unpack(int archive, Layer layer, const fs::path& into) {
  const UniqueFd folder = OpenDirectory(AT_FDCWD, into, into);
  try {
    if (layer == Layer::kPackage) {
      tools::UnpackPackage(archive, folder.get(), kLimit, std::nullopt);
    } else {
      ArchiveReader reader(archive, layer);
      tools::Extractor(folder.get(), kLimit).Unpack(reader);
    }
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

void CheckLink(const fs::path& link, const fs::path& into) {
  const fs::path target = fs::read_symlink(link);
  Require(target.is_relative(), "no link is absolute");
  std::error_code loop;
  const fs::path end = fs::weakly_canonical(link.parent_path() / target, loop);
  const fs::path inside = fs::canonical(into);
  Require(loop || std::mismatch(inside.begin(), inside.end(), end.begin(), end.end()).first == inside.end(),
          "no link leads out");
}

void CheckInside(const fs::path& into) {
  uint64_t bytes = 0;
  std::set<ino_t> counted;
  for (const auto& entry : fs::recursive_directory_iterator(into)) {
    struct stat status = {};
    Require(lstat(entry.path().c_str(), &status) == 0, "what is there can be looked at");
    Require(status.st_uid == geteuid(), "all belongs to whoever unpacks");
    if (S_ISLNK(status.st_mode)) {
      CheckLink(entry.path(), into);
      continue;
    }
    Require(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode), "nothing but files, folders and links");
    Require((status.st_mode & 07022) == 0, "no set-id bit and nobody else's to write");
    if (S_ISREG(status.st_mode) && counted.insert(status.st_ino).second) {
      bytes += static_cast<uint64_t>(status.st_size);
    }
  }
  Require(bytes <= kLimit + std::strlen(kKept), "no more bytes than the limit");
  struct stat kept = {};
  Require(lstat((into / "kept").c_str(), &kept) == 0 && kept.st_nlink == 1 && test::ReadFile(into / "kept") == kKept,
          "a file that was there before stays as it was");
}

fs::file_type TypeOf(Member::Kind kind) {
  switch (kind) {
    case Member::Kind::kFile:
    case Member::Kind::kHardLink:
      return fs::file_type::regular;
    case Member::Kind::kFolder:
      return fs::file_type::directory;
    case Member::Kind::kSymlink:
      return fs::file_type::symlink;
    case Member::Kind::kOther:
      break;
  }
  return fs::file_type::none;
}

void CheckComplete(int archive, Layer layer, const fs::path& into) {
  ArchiveReader reader(archive, layer);
  Member member;
  while (reader.Next(member)) {
    fs::path path = into;
    for (const std::string_view part : tools::SplitMemberName(member.name)) {
      path /= part;
    }
    Require(fs::symlink_status(path).type() == TypeOf(member.kind), "every member is there");
    Require(member.kind != Member::Kind::kFile || fs::file_size(path) == member.size, "every file is whole");
    for (tools::Piece piece; reader.Read(piece);) {
    }
  }
}

// The sum of a tar header's bytes, its own field counted as blanks, stands in that field. Chance would hardly ever get
// it right.
void CorrectHeaders(uint8_t* data, std::size_t size) {
  constexpr std::size_t kBlock = 512;
  constexpr std::size_t kSum = 148;
  constexpr std::size_t kSumSize = 8;
  constexpr std::size_t kMagic = 257;
  for (uint8_t* header = data; size >= kBlock; header += kBlock, size -= kBlock) {
    if (std::memcmp(header + kMagic, "ustar", 5) != 0) {
      continue;
    }
    std::memset(header + kSum, ' ', kSumSize);
    const unsigned sum = std::accumulate(header, header + kBlock, 0U);
    std::array<char, kSumSize + 1> text = {};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%06o", sum));
    std::memcpy(header + kSum, text.data(), kSumSize - 1);
  }
}

}  // namespace

void UnpackAndCheck(const std::string& archive, Layer layer) {
  static const Yard yard;
  yard.Prepare();
  const UniqueFd file = Put(archive);
  const bool unpacked = [&] {
    const CurrentFolder elsewhere(yard.current());
    return Unpack(file.get(), layer, yard.into());
  }();
  yard.CheckOutside();
  CheckInside(yard.into());
  if (unpacked) {
    CheckComplete(file.get(), layer, yard.into());
  } else if (layer == Layer::kPackage) {
    yard.CheckNothingInside();
  }
}

}  // namespace orbamira::fuzz

extern "C" {

std::size_t LLVMFuzzerMutate(uint8_t* data, std::size_t size, std::size_t max_size);
std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t max_size, unsigned int seed);

std::size_t LLVMFuzzerCustomMutator(uint8_t* data, std::size_t size, std::size_t max_size, unsigned int seed) {
  const std::size_t new_size = LLVMFuzzerMutate(data, size, max_size);
  if (seed % 16 != 0) {
    orbamira::fuzz::CorrectHeaders(data, new_size);
  }
  return new_size;
}

}  // extern "C"
