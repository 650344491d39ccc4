// Preloaded into a program whose clock is to stand: it is CLOCK_AT, in seconds since 1970.

#include <cstdlib>
#include <ctime>

#pragma GCC visibility push(default)

extern "C" time_t time(time_t* result) noexcept {
  const char* text = std::getenv("CLOCK_AT");  // NOLINT(concurrency-mt-unsafe): nobody changes it
  const time_t now = text != nullptr ? std::atoll(text) : -1;
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

#pragma GCC visibility pop
