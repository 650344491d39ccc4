#include "tools/orba-archive/shared_blocks.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

namespace orbamira::tools {

uint64_t ShareBlocks(int from, uint64_t begin, uint64_t size, int to) {
  constexpr uint64_t kBlock = 4096;
  file_clone_range range{};
  range.src_fd = from;
  range.src_offset = begin;
  range.src_length = size - size % kBlock;
  if (begin % kBlock != 0 || range.src_length == 0 || ioctl(to, FICLONERANGE, &range) != 0) {
    return 0;
  }
  return range.src_length;
}

}  // namespace orbamira::tools
