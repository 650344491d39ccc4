// Preloaded into a program whose clock is to stand: it is CLOCK_AT, in seconds since 1970.

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

template <typename Time>
Time StoppedTime(Time* result) {
  const char* text = std::getenv("CLOCK_AT");  // NOLINT(concurrency-mt-unsafe): nobody changes it
  const Time now = text != nullptr ? static_cast<Time>(std::atoll(text)) : -1;
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" {

time_t time(time_t* result) noexcept { return StoppedTime(result); }

// What programs with a wide time_t ask where a long has 32 bits.
std::int64_t WideTime(std::int64_t* result) __asm__("__time64");
std::int64_t WideTime(std::int64_t* result) { return StoppedTime(result); }
}

#pragma GCC visibility pop
