// A package's payload. The input is the tar inside; the test adds the gzip around it, because a random checksum is
// always wrong. gzip.cpp tests the compression itself.

#include <isa-l/crc.h>

#include <algorithm>

#include "tests/fuzz/fuzzing.h"
#include "tests/fuzz/untar.h"

namespace {

using orbamira::fuzz::LittleEndian;

// The content in blocks that are not compressed.
std::string Gzip(const std::string& content) {
  constexpr std::size_t kBlock = 0xffff;
  std::string gzip("\x1f\x8b\x08\0\0\0\0\0\0\xff", 10);
  std::size_t done = 0;
  do {
    const std::size_t count = std::min(kBlock, content.size() - done);
    const bool last = done + count == content.size();
    gzip += LittleEndian(last ? 1 : 0, 1) + LittleEndian(count, 2) + LittleEndian(~count, 2);
    gzip.append(content, done, count);
    done += count;
  } while (done < content.size());
  const uint32_t sum = crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(content.data()), content.size());
  return gzip + LittleEndian(sum, 4) + LittleEndian(content.size(), 4);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  orbamira::fuzz::UnpackAndCheck(Gzip(orbamira::fuzz::Text(data, size)), orbamira::tools::Layer::kPayload);
  return 0;
}
