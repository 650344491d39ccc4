#include "tests/support/await.h"

#include <poll.h>

#include <chrono>
#include <stdexcept>

namespace orbamira::test {

void Await(const std::function<bool()>& condition) {
  constexpr std::chrono::minutes kPatience{5};
  constexpr int kPause = 10;  // milliseconds
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("what is awaited does not come");
    }
    poll(nullptr, 0, kPause);
  }
}

}  // namespace orbamira::test
