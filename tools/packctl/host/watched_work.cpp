#include "tools/packctl/host/watched_work.h"

#include <chrono>
#include <future>

namespace orbamira::packctl {

bool RunWatched(const std::function<bool()>& work, const std::function<void()>& look) {
  constexpr std::chrono::milliseconds kInterval{200};
  std::future<bool> result = std::async(std::launch::async, work);
  while (result.wait_for(kInterval) != std::future_status::ready) {
    look();
  }
  return result.get();
}

}  // namespace orbamira::packctl
