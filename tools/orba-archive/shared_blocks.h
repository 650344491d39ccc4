#pragma once

#include <cstdint>

namespace orbamira::tools {

/// Gives the empty open file `to` the blocks of `from` that begin at `begin`, without a copy: a later write to one file
/// does not change the other. Returns how many of `size` bytes it has then, all whole blocks of 4096 bytes; 0 where the
/// file system shares no blocks, where `begin` is not the begin of one, and for any other failure. What `to` holds then
/// is to be written as if nothing were there.
[[nodiscard]] uint64_t ShareBlocks(int from, uint64_t begin, uint64_t size, int to);

}  // namespace orbamira::tools
