// A clock for programs that would wait long: linked into a program, it lets every sleep end at once and every long wait
// for a file to become ready end when nothing happened for a moment. The steady clock goes on by what was left out, so
// limits of time are met as they would be. The program must export these symbols to its libraries (ENABLE_EXPORTS).

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// Shorter waits take their time, as do endless ones.
constexpr milliseconds kLongWait{5000};
// How long nothing may happen: enough for a busy machine to do something.
constexpr milliseconds kPatience{2000};

std::atomic<nanoseconds> left_out{nanoseconds(0)};

void LeaveOut(nanoseconds time) {
  nanoseconds before = left_out.load();
  while (!left_out.compare_exchange_weak(before, before + time)) {
  }
}

timespec TimespecOf(nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  timespec parts{};
  parts.tv_sec = static_cast<decltype(parts.tv_sec)>(seconds.count());
  parts.tv_nsec = static_cast<decltype(parts.tv_nsec)>((time - seconds).count());
  return parts;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (result == 0 && clock == CLOCK_MONOTONIC) {
    *time = TimespecOf(std::chrono::seconds(time->tv_sec) + nanoseconds(time->tv_nsec) + left_out.load());
  }
  return result;
}

[[gnu::visibility("default")]] int nanosleep(const timespec* time, timespec* /*left*/) {
  LeaveOut(std::chrono::seconds(time->tv_sec) + nanoseconds(time->tv_nsec));
  return 0;
}

[[gnu::visibility("default")]] int poll(pollfd* files, nfds_t count, int timeout) {
  const milliseconds wanted(timeout);
  const milliseconds granted = wanted >= kLongWait ? kPatience : wanted;
  const timespec wait = TimespecOf(granted);
  const int ready = ppoll(files, count, timeout < 0 ? nullptr : &wait, nullptr);
  if (ready == 0) {
    LeaveOut(wanted - granted);
  }
  return ready;
}

}  // extern "C"
