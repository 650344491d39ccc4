#include "tools/orba-archive/byte_source.h"

#include <isa-l/igzip_lib.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <vector>

#include "platform/posix/files.h"

namespace orbamira::tools {
namespace {

// Small enough to stay in the L2 cache until it is used.
constexpr size_t kReadSize = 64UL * 1024;
constexpr size_t kInflatedSize = 512UL * 1024;

class PlainSource final : public ByteSource {
 public:
  explicit PlainSource(int fd) : fd_(fd), buffer_(kReadSize) {}

  std::span<const uint8_t> Next() override {
    ssize_t count = -1;
    do {
      count = pread(fd_, buffer_.data(), buffer_.size(), offset_);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
      ThrowErrno("cannot read");
    }
    offset_ += count;
    return {buffer_.data(), static_cast<size_t>(count)};
  }

 private:
  int fd_;
  off_t offset_ = 0;
  std::vector<uint8_t> buffer_;
};

/// One or more gzip members in a row and nothing else. Length and checksum of each are checked.
class GzipSource final : public ByteSource {
 public:
  explicit GzipSource(int fd) : compressed_(fd), buffer_(kInflatedSize) {
    isal_inflate_init(&state_);
    state_.crc_flag = ISAL_GZIP_NO_HDR_VER;
    isal_gzip_header_init(&header_);
  }

  std::span<const uint8_t> Next() override {
    while (HasInput()) {
      if (state_.block_state == ISAL_BLOCK_FINISH) {
        isal_inflate_reset(&state_);
        in_header_ = true;
      }
      if (in_header_) {
        ReadHeader();
        continue;
      }
      state_.next_out = buffer_.data();
      state_.avail_out = static_cast<uint32_t>(buffer_.size());
      if (isal_inflate(&state_) < ISAL_DECOMP_OK) {
        throw std::runtime_error("damaged gzip data");
      }
      if (const size_t count = buffer_.size() - state_.avail_out; count > 0) {
        return {buffer_.data(), count};
      }
    }
    return {};
  }

 private:
  /// Reads as much of a header as there is. isal_inflate() would read it with a new isal_gzip_header in each call, and
  /// forget flags and checksum of one that is longer than what is read at once. Refuses flags without a meaning (RFC
  /// 1952, section 2.3.1): the decoder would take a field that they announce for data.
  void ReadHeader() {
    constexpr uint32_t kReserved = 0xe0;
    const int result = isal_read_gzip_header(&state_, &header_);
    if (result == ISAL_END_INPUT) {
      return;
    }
    if (result != ISAL_DECOMP_OK || (header_.flags & kReserved) != 0) {
      throw std::runtime_error("damaged gzip data");
    }
    in_header_ = false;
  }

  /// Whether there is something to inflate: in the decoder, which keeps what did not fit into a full buffer, or in the
  /// file.
  bool HasInput() {
    const bool held_back = !in_header_ && state_.avail_out == 0 && state_.block_state != ISAL_BLOCK_FINISH;
    if (state_.avail_in > 0 || held_back) {
      return true;
    }
    const std::span<const uint8_t> more = compressed_.Next();
    if (more.empty()) {
      if (state_.block_state != ISAL_BLOCK_FINISH) {
        throw std::runtime_error("truncated gzip data");
      }
      return false;
    }
    state_.next_in = const_cast<uint8_t*>(more.data());  // the decoder's interface lacks the const; it only reads
    state_.avail_in = static_cast<uint32_t>(more.size());
    return true;
  }

  PlainSource compressed_;
  std::vector<uint8_t> buffer_;
  inflate_state state_ = {};
  isal_gzip_header header_ = {};
  bool in_header_ = true;
};

}  // namespace

std::unique_ptr<ByteSource> OpenByteSource(int fd, Layer layer) {
  switch (layer) {
    case Layer::kPackage:
      return std::make_unique<PlainSource>(fd);
    case Layer::kPayload:
      return std::make_unique<GzipSource>(fd);
  }
  throw std::logic_error("no such layer");
}

}  // namespace orbamira::tools
