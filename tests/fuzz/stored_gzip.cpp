#include "tests/fuzz/stored_gzip.h"

#include <isa-l/crc.h>

#include <algorithm>

#include "tests/fuzz/fuzzing.h"

namespace orbamira::fuzz {

std::string StoredGzip(const std::string& content) {
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

}  // namespace orbamira::fuzz
