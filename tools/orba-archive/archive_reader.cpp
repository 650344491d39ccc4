#include "tools/orba-archive/archive_reader.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace orbamira::tools {
namespace {

// Long names and extended headers fit many times over; a longer header is an attempt to fill the memory. The limits for
// a package are enough for names of plain files, and for the 15,000 files that a manifest can list at most.
constexpr uint64_t kMaxHeaderOfPackage = 64UL * 1024;
constexpr uint64_t kMaxHeadersOfPackage = 32UL * 1024 * 1024;
constexpr uint64_t kMaxHeaderOfPayload = 2UL * 1024 * 1024;
constexpr uint64_t kMaxMembers = 1'000'000;
constexpr uint64_t kEndMark = 1024;

Member::Kind KindOf(archive_entry* entry) {
  if (archive_entry_hardlink(entry) != nullptr) {
    return Member::Kind::kHardLink;
  }
  switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
      return Member::Kind::kFile;
    case AE_IFDIR:
      return Member::Kind::kFolder;
    case AE_IFLNK:
      return Member::Kind::kSymlink;
    default:
      return Member::Kind::kOther;
  }
}

std::string Text(const char* text) { return text == nullptr ? std::string() : std::string(text); }

}  // namespace

ArchiveReader::ArchiveReader(int file, Layer layer)
    : source_(OpenByteSource(file, layer)),
      archive_(archive_read_new(), archive_read_free),
      max_header_(layer == Layer::kPackage ? kMaxHeaderOfPackage : kMaxHeaderOfPayload),
      max_headers_(layer == Layer::kPackage ? kMaxHeadersOfPackage : UINT64_MAX),
      header_end_(max_header_) {
  if (!archive_) {
    throw std::bad_alloc();
  }
  const auto feed = [](archive*, void* self, const void** buffer) -> la_ssize_t {
    return static_cast<ArchiveReader*>(self)->Feed(buffer);
  };
  if (archive_read_support_format_tar(archive_.get()) != ARCHIVE_OK ||
      archive_read_open(archive_.get(), this, nullptr, feed, nullptr) != ARCHIVE_OK) {
    Fail();
  }
}

ArchiveReader::~ArchiveReader() = default;

bool ArchiveReader::Next(Member& member) {
  header_end_ = fed_ + max_header_;
  archive_entry* entry = nullptr;
  const int result = archive_read_next_header(archive_.get(), &entry);
  if (result == ARCHIVE_EOF) {
    CheckEnd();
    return false;
  }
  // A warning means that the library had to guess, for example a name.
  if (result != ARCHIVE_OK) {
    Fail();
  }
  member.begin = static_cast<uint64_t>(archive_filter_bytes(archive_.get(), 0));
  headers_ += member.begin - static_cast<uint64_t>(archive_read_header_position(archive_.get()));
  if (headers_ > max_headers_) {
    throw std::runtime_error("more than " + std::to_string(max_headers_) + " bytes of headers");
  }
  if (++members_ > kMaxMembers) {
    throw std::runtime_error("more than " + std::to_string(kMaxMembers) + " members");
  }
  const int64_t size = archive_entry_size(entry);
  if (archive_entry_pathname(entry) == nullptr || size < 0) {
    throw std::runtime_error("damaged member");
  }
  member.name = archive_entry_pathname(entry);
  member.kind = KindOf(entry);
  member.mode = archive_entry_perm(entry);
  member.size = member.kind == Member::Kind::kFile ? static_cast<uint64_t>(size) : 0;
  member.target = Text(member.kind == Member::Kind::kHardLink ? archive_entry_hardlink(entry)  //
                                                              : archive_entry_symlink(entry));
  size_of_member_ = member.size;
  return true;
}

bool ArchiveReader::Read(Piece& piece) {
  header_end_ = UINT64_MAX;
  const void* data = nullptr;
  size_t size = 0;
  int64_t offset = 0;
  const int result = archive_read_data_block(archive_.get(), &data, &size, &offset);
  if (result == ARCHIVE_EOF) {
    return false;
  }
  if (result != ARCHIVE_OK) {
    Fail();
  }
  piece = {static_cast<uint64_t>(offset), {static_cast<const uint8_t*>(data), size}};
  if (offset < 0 || piece.offset > size_of_member_ || size > size_of_member_ - piece.offset) {
    throw std::runtime_error("damaged member");
  }
  return true;
}

void ArchiveReader::ForEach(const std::function<void(const Member&)>& action) {
  Member member;
  while (Next(member)) {
    try {
      action(member);
    } catch (const std::system_error& error) {
      throw std::runtime_error(member.name + ": " + error.code().message());
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(member.name + ": " + error.what());
    }
  }
}

/// The library calls it for more bytes.
ssize_t ArchiveReader::Feed(const void** buffer) {
  try {
    if (fed_ >= header_end_) {
      throw std::runtime_error("a member's header is too long");
    }
    const std::span<const uint8_t> bytes = source_->Next();
    const auto last = std::find_if(bytes.rbegin(), bytes.rend(), [](uint8_t byte) { return byte != 0; });
    if (last != bytes.rend()) {
      end_of_data_ = fed_ + static_cast<uint64_t>(bytes.rend() - last);
    }
    fed_ += bytes.size();
    *buffer = bytes.data();
    return static_cast<ssize_t>(bytes.size());
  } catch (...) {
    source_error_ = std::current_exception();
    return -1;
  }
}

void ArchiveReader::Fail() {
  if (source_error_) {
    std::rethrow_exception(source_error_);
  }
  throw std::runtime_error(Text(archive_error_string(archive_.get())));
}

/// The library accepts less than the two zero blocks that end an archive, and does not read what follows them.
void ArchiveReader::CheckEnd() {
  if (source_error_) {
    std::rethrow_exception(source_error_);
  }
  const auto end = static_cast<uint64_t>(archive_read_header_position(archive_.get()));
  header_end_ = UINT64_MAX;
  const void* ignored = nullptr;
  while (const ssize_t count = Feed(&ignored)) {
    if (count < 0) {
      Fail();
    }
  }
  if (end_of_data_ > end) {
    throw std::runtime_error("data after the end of the archive");
  }
  if (fed_ < end + kEndMark) {
    throw std::runtime_error("truncated archive");
  }
  if (members_ == 0) {
    throw std::runtime_error("empty archive");
  }
}

}  // namespace orbamira::tools
