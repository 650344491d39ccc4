#pragma once

// Compiled before every source file of a mutated build: each mutant asks here whether it is the one that is on.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>

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

/// The parent of a process; -1 if there is no such process.
inline pid_t ParentOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const auto end_of_name = text.rfind(')');
  return end_of_name == std::string::npos ? -1 : std::atoi(text.c_str() + std::min(end_of_name + 4, text.size()));
}

/// The process, or one of its ancestors, that the runner of the tests started; 0 if none is.
inline pid_t TestOf(pid_t process, pid_t runner) {
  pid_t parent = process;
  do {
    process = parent;
    parent = ParentOf(process);
  } while (parent > 1 && parent != runner);
  return parent == runner ? process : 0;
}

/// A mutant may send its signal to any process of the user, so it gets no further than its own test. Whoever starts a
/// test adopts what is orphaned in it.
inline int Kill(pid_t process, int signal) {
  const char* runner = std::getenv("ORBAMIRA_MUTATION_RUNNER");
  const pid_t named = std::abs(process);  // a group has the number of its first process, which may be gone
  if (runner != nullptr && named != 0 && ParentOf(named) >= 0 &&
      TestOf(named, std::atoi(runner)) != TestOf(getpid(), std::atoi(runner))) {
    errno = EPERM;
    return -1;
  }
  return kill(process, signal);
}

}  // namespace orbamira_mutation

#define kill(process, signal) ::orbamira_mutation::Kill(process, signal)
