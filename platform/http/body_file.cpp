#include "platform/http/body_file.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "platform/posix/errors.h"

namespace orbamira {
namespace {

// curl delivers 16 KiB at a time. Writing so little at once takes the kernel half as long again, and leaves many small
// pieces in its cache, which slows down reading and deleting the file.
constexpr std::size_t kPieceSize = 256UL * 1024;

// How much of a file system stays free: 1/20 of it, at most 64 MiB.
constexpr std::uint64_t kReservedPart = 20;
constexpr std::uint64_t kReserve = 64UL << 20;

// A standard stream can neither sync nor truncate its file, and without the name we cannot open the file again.
// libstdc++ keeps the file in a protected member of the buffer, which a derived class may use; its fd() is documented.
// Everything that needs the descriptor goes through here.
class DescriptorOf : public std::filebuf {
 public:
  static int Get(std::filebuf& buffer) { return (buffer.*(&DescriptorOf::_M_file)).fd(); }
};

}  // namespace

BodyFile::BodyFile(std::ofstream& stream) : stream_(stream) {
  if (!stream.is_open() || !stream) {
    ThrowErrno("the file is not open", EBADF);
  }
  errno = 0;
  begin_ = stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::out);
  if (begin_ < 0) {
    ThrowErrno("cannot tell the position in the file");
  }
  piece_.reserve(kPieceSize);
  MakePrivate();
}

BodyFile::~BodyFile() { static_cast<void>(WriteOut()); }

// The stream created the file with 0666 less the host's umask. A device keeps its mode.
void BodyFile::MakePrivate() {
  struct stat file {};
  if (fstat(Descriptor(), &file) == 0 && S_ISREG(file.st_mode)) {
    static_cast<void>(fchmod(Descriptor(), S_IRUSR | S_IWUSR));
  }
}

// Only a regular file takes up space, and not every file system says how much it has.
void BodyFile::ExpectRoomFor(std::int64_t size) {
  struct stat file {};
  struct statvfs disk {};
  if (size <= 0 || fstat(Descriptor(), &file) != 0 || !S_ISREG(file.st_mode) || fstatvfs(Descriptor(), &disk) != 0 ||
      disk.f_blocks == 0) {
    return;
  }
  const std::uint64_t free = std::uint64_t{disk.f_bavail} * disk.f_frsize;
  const std::uint64_t reserve = std::min(kReserve, std::uint64_t{disk.f_blocks} / kReservedPart * disk.f_frsize);
  if (free < reserve || static_cast<std::uint64_t>(size) > free - reserve) {
    ThrowErrno("cannot write the file: it needs " + std::to_string(size) + " bytes, " + std::to_string(free) +
                   " are free and " + std::to_string(reserve) + " stay free",
               ENOSPC);
  }
}

void BodyFile::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view fitting = bytes.substr(0, kPieceSize - piece_.size());
    piece_ += fitting;
    bytes.remove_prefix(fitting.size());
    if (piece_.size() == kPieceSize) {
      WritePiece();
    }
  }
}

void BodyFile::StartOver() {
  piece_.clear();
  Flush();
  if (ftruncate(Descriptor(), begin_) != 0 || stream_.rdbuf()->pubseekpos(begin_, std::ios::out) < 0) {
    ThrowErrno("cannot truncate the file");
  }
}

void BodyFile::Flush() {
  WritePiece();
  if (stream_.rdbuf()->pubsync() != 0) {
    DropAndThrow("cannot write the file");
  }
}

void BodyFile::Sync() {
  Flush();
  if (fsync(Descriptor()) != 0) {
    DropAndThrow("cannot sync the file");
  }
}

int BodyFile::Descriptor() const { return DescriptorOf::Get(*stream_.rdbuf()); }

void BodyFile::WritePiece() {
  try {
    ExpectRoomFor(static_cast<std::int64_t>(piece_.size()));
  } catch (const std::system_error&) {
    piece_.clear();
    Drop();
    throw;
  }
  if (!WriteOut()) {
    DropAndThrow("cannot write the file");
  }
}

// Uses the buffer, which never throws, in place of the stream. It writes a large piece like ours without a copy.
bool BodyFile::WriteOut() {
  errno = 0;
  const auto size = static_cast<std::streamsize>(piece_.size());
  const bool written = stream_.rdbuf()->sputn(piece_.data(), size) == size;
  piece_.clear();
  return written;
}

// Does not clear the buffer: the few bytes in it are written at the beginning when the stream is closed.
void BodyFile::Drop() {
  if (ftruncate(Descriptor(), begin_) == 0) {
    lseek(Descriptor(), begin_, SEEK_SET);
  }
}

void BodyFile::DropAndThrow(const std::string& what) {
  const int error = errno;
  Drop();
  ThrowErrno(what, error);
}

}  // namespace orbamira
