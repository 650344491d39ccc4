#include "tools/orba-archive/package.h"

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "platform/posix/files.h"
#include "tools/orba-archive/archive_reader.h"
#include "tools/orba-archive/member_name.h"
#include "tools/orba-archive/sha256.h"
#include "tools/orba-archive/shared_blocks.h"
#include "tools/orba-archive/staged_files.h"
#include "tools/orba-archive/unpack_budget.h"

namespace orbamira::tools {
namespace {

constexpr mode_t kMemberModes = 0755;
constexpr mode_t kInfoMode = 0644;

/// Opens the file for a member's contents. Not valid when they are only checked.
using OpenFile = std::function<UniqueFd(const std::string& name, const Member& member)>;

std::string FileName(const Member& member) {
  const std::vector<std::string_view> parts = SplitMemberName(member.name);
  if (member.kind != Member::Kind::kFile || parts.size() != 1) {
    throw std::runtime_error("a package contains only files at the top level");
  }
  return std::string(parts.front());
}

/// Passes on the first `size` bytes of the file.
template <typename Take>
void TakeFrom(int file, uint64_t size, const std::string& name, Take take) {
  constexpr size_t kPiece = 64UL * 1024;
  std::vector<uint8_t> buffer(kPiece);
  lseek(file, 0, SEEK_SET);
  for (uint64_t done = 0; done < size;) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(buffer.size(), size - done));
    const size_t count = ReadFully(file, buffer.data(), wanted, name);
    if (count == 0) {
      throw std::runtime_error("changed while it was read");
    }
    take(std::span<const uint8_t>(buffer.data(), count));
    done += count;
  }
}

void CheckTextSize(const Member& member) {
  if (member.size > kMaxTextSize) {
    throw std::runtime_error("longer than " + std::to_string(kMaxTextSize) + " bytes");
  }
}

class PackageReader {
 public:
  PackageReader(int package, bool with_digests, OpenFile open)
      : package_(package), archive_(package, Layer::kPackage), with_digests_(with_digests), open_(std::move(open)) {}

  PackageContents Read() {
    archive_.ForEach([this](const Member& member) { Take(member); });
    return std::move(contents_);
  }

 private:
  void Take(const Member& member) {
    const std::string name = FileName(member);
    if (member.name == kManifestName) {
      TakeText(name, member, contents_.manifest);
    } else if (member.name == kSignatureName) {
      TakeText(name, member, contents_.signature);
    } else {
      TakeMember(name, member);
    }
  }

  void TakeText(const std::string& name, const Member& member, std::optional<std::string>& text) {
    if (text) {
      throw std::runtime_error("in the package twice");
    }
    CheckTextSize(member);
    text.emplace();
    Copy(name, member, [&text](std::span<const uint8_t> bytes) { text->append(bytes.begin(), bytes.end()); });
  }

  void TakeMember(const std::string& name, const Member& member) {
    listed_ += kManifestLineSize + member.name.size();
    if (listed_ > kMaxTextSize) {
      throw std::runtime_error("more members than a manifest can list");
    }
    const auto [entry, is_new] = contents_.digests.try_emplace(member.name);
    if (!is_new) {
      throw std::runtime_error("in the package twice");
    }
    if (with_digests_ && member.name == kInfoName) {
      CheckTextSize(member);
    }
    if (!with_digests_) {
      Copy(name, member, [](std::span<const uint8_t> /*bytes*/) {});
      return;
    }
    Sha256 digest;
    std::string* const text = member.name == kInfoName ? &contents_.info : nullptr;
    Copy(name, member, [&digest, text](std::span<const uint8_t> bytes) {
      digest.Add(bytes);
      if (text != nullptr) {
        text->append(bytes.begin(), bytes.end());
      }
    });
    entry->second = digest.Finish();
  }

  /// Reads the contents into the member's file and passes each piece to `take`. Refuses holes between pieces: they cost
  /// nothing to send, but the time to compute their digest would have no limit.
  template <typename Take>
  void Copy(const std::string& name, const Member& member, Take take) {
    const UniqueFd file = open_(name, member);
    const uint64_t shared = file.valid() ? Share(name, member, file.get(), take) : 0;
    uint64_t size = 0;
    for (Piece piece; archive_.Read(piece); size += piece.data.size()) {
      if (piece.offset != size) {
        throw std::runtime_error("a sparse file in a package");
      }
      const uint64_t done = shared - std::min(shared, size);
      const std::span<const uint8_t> rest =
          piece.data.subspan(static_cast<size_t>(std::min<uint64_t>(done, piece.data.size())));
      take(rest);
      if (file.valid()) {
        WriteFully(file.get(), rest.data(), rest.size(), name);
      }
    }
    if (size != member.size) {
      throw std::runtime_error("a sparse file in a package");
    }
  }

  /// Lets the file of a large member, which is no text, share blocks with the package; returns how many bytes it then
  /// has. Passes them to `take` for a digest, as they stand in the file: they stay even if the package changes
  /// meanwhile.
  template <typename Take>
  uint64_t Share(const std::string& name, const Member& member, int file, Take take) {
    if (member.size <= kMaxTextSize) {
      return 0;
    }
    const uint64_t shared = ShareBlocks(package_, member.begin, member.size, file);
    if (with_digests_) {
      TakeFrom(file, shared, name, take);
    }
    lseek(file, static_cast<off_t>(shared), SEEK_SET);
    return shared;
  }

  int package_;
  ArchiveReader archive_;
  bool with_digests_;
  OpenFile open_;
  PackageContents contents_;
  uint64_t listed_ = 0;  // bytes of a manifest with the members so far
};

std::optional<Accepted> ReadAndJudge(int package, const std::optional<Demands>& demands, OpenFile open) {
  const PackageContents contents = PackageReader(package, demands.has_value(), std::move(open)).Read();
  return demands ? std::optional(Judge(contents, *demands)) : std::nullopt;
}

}  // namespace

void CheckPackage(int package, const std::optional<Demands>& demands) {
  ReadAndJudge(package, demands, [](const std::string& /*name*/, const Member& /*member*/) { return UniqueFd(); });
}

void UnpackInfo(int package, int folder, const std::optional<Demands>& demands) {
  StagedFiles files(folder);
  ReadAndJudge(package, demands, [&files](const std::string& name, const Member& member) {
    if (member.name != kInfoName) {
      return UniqueFd();
    }
    CheckTextSize(member);
    return files.Add(name, kInfoMode);
  });
  files.Publish();
}

std::optional<Accepted> UnpackPackage(int package, int folder, uint64_t limit, const std::optional<Demands>& demands) {
  UnpackBudget budget(folder, limit);
  StagedFiles files(folder);
  std::optional<Accepted> accepted = ReadAndJudge(package, demands, [&](const std::string& name, const Member& member) {
    budget.Take(member.size);
    return files.Add(name, member.mode & kMemberModes);
  });
  files.Publish();
  return accepted;
}

}  // namespace orbamira::tools
