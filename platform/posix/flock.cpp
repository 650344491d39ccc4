#include "platform/posix/flock.h"

#include <sys/file.h>

#include <cerrno>

namespace orbamira {

Flock::~Flock() {
  if (file_.valid()) {
    // Closing is not enough: a process that another thread of the host has forked meanwhile would keep the lock.
    flock(file_.get(), LOCK_UN);
  }
}

bool Flock::Lock() {
  int result = 0;
  do {
    result = flock(file_.get(), LOCK_EX);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool Flock::TryLock() { return flock(file_.get(), LOCK_EX | LOCK_NB) == 0; }

}  // namespace orbamira
