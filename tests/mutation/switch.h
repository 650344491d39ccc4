#pragma once

// Compiled before every source file of a mutated build: each mutant asks here whether it is the one that is on.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace orbamira_mutation {

/// The file that ORBAMIRA_MUTATION names, mapped by every process of a test: the mutant that is on, 0 for none, and
/// after it a word for each mutant, which becomes 1 when its code is reached.
inline std::atomic<unsigned>* Words() {
  static std::atomic<unsigned>* const words = []() -> std::atomic<unsigned>* {
    const char* path = std::getenv("ORBAMIRA_MUTATION");
    const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
      return nullptr;
    }
    struct stat about {};
    void* map = MAP_FAILED;
    if (fstat(file, &about) == 0) {
      map = mmap(nullptr, static_cast<size_t>(about.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    close(file);
    return map == MAP_FAILED ? nullptr : static_cast<std::atomic<unsigned>*>(map);
  }();
  return words;
}

inline bool IsOn(unsigned mutant) {
  std::atomic<unsigned>* const words = Words();
  if (words == nullptr) {
    return false;
  }
  words[mutant].store(1, std::memory_order_relaxed);
  return words[0].load(std::memory_order_relaxed) == mutant;
}

/// Whether this mutant is on. What the compiler computes is never mutated.
constexpr bool On(unsigned mutant) { return !__builtin_is_constant_evaluated() && IsOn(mutant); }

/// A mutant may get a process wrong: -1 are all processes of the user, the one that runs the tests among them.
inline int Kill(pid_t process, int signal) {
  if (process == -1) {
    errno = EPERM;
    return -1;
  }
  return kill(process, signal);
}

}  // namespace orbamira_mutation

#define kill(process, signal) ::orbamira_mutation::Kill(process, signal)
