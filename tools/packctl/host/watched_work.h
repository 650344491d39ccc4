#pragma once

#include <functional>

/// Long work with a display of its progress.
namespace orbamira::packctl {

/// Runs `work` on a thread of its own and calls `look` on this one about five times a second until it is done; returns
/// what it returned, as soon as it did. What `work` throws is thrown here; what `look` throws is thrown after the work
/// is done.
bool RunWatched(const std::function<bool()>& work, const std::function<void()>& look);

}  // namespace orbamira::packctl
