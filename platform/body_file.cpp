#include "platform/body_file.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace orbamira::wrapper {
namespace {

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(), what);
}

// The standard stream gives no way to fsync or truncate its file, and opening the file a second time by its name is no
// way either: the name is not known here. libstdc++ keeps the file in a protected member of the buffer, which a derived
// class may name; its fd() is documented. Everything that needs the descriptor goes through here.
class DescriptorOf : public std::filebuf {
 public:
  static int Get(std::filebuf& buffer) { return (buffer.*(&DescriptorOf::_M_file)).fd(); }
};

}  // namespace

BodyFile::BodyFile(std::ofstream& stream) : stream_(stream) {
  if (!stream.is_open() || !stream) {
    throw std::system_error(EBADF, std::generic_category(), "the file is not open");
  }
  errno = 0;
  begin_ = stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::out);
  if (begin_ < 0) {
    ThrowErrno("cannot tell the position in the file");
  }
}

// Goes to the buffer itself, which never throws. Pieces as large as curl's pass it by: they are written without a copy.
void BodyFile::Write(std::string_view bytes) {
  errno = 0;
  const auto size = static_cast<std::streamsize>(bytes.size());
  if (stream_.rdbuf()->sputn(bytes.data(), size) != size) {
    ThrowErrno("cannot write the file");
  }
}

void BodyFile::StartOver() {
  Flush();
  if (ftruncate(DescriptorOf::Get(*stream_.rdbuf()), begin_) != 0 ||
      stream_.rdbuf()->pubseekpos(begin_, std::ios::out) < 0) {
    ThrowErrno("cannot truncate the file");
  }
}

void BodyFile::Flush() {
  errno = 0;
  if (stream_.rdbuf()->pubsync() != 0) {
    ThrowErrno("cannot write the file");
  }
}

void BodyFile::Sync() {
  Flush();
  if (fsync(DescriptorOf::Get(*stream_.rdbuf())) != 0) {
    ThrowErrno("cannot sync the file");
  }
}

}  // namespace orbamira::wrapper
