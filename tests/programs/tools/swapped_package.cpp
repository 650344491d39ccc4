// Preloaded into a program that reads a package: once it has read to the end, the file named by SWAP_PACKAGE holds what
// the file named by SWAP_WITH does. This is what a user who may write to the package does at the best of moments.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

void Swap() {
  // Both are absent in the program's children, and after the first time.
  const char* package = std::getenv("SWAP_PACKAGE");  // NOLINT(concurrency-mt-unsafe): there is one thread
  const char* with = std::getenv("SWAP_WITH");        // NOLINT(concurrency-mt-unsafe): there is one thread
  if (package != nullptr && with != nullptr) {
    std::ofstream(package, std::ios::binary | std::ios::in) << std::ifstream(with, std::ios::binary).rdbuf();
    const std::ofstream mark(std::string(package) + ".swapped");
    unsetenv("SWAP_PACKAGE");  // NOLINT(concurrency-mt-unsafe): there is one thread
  }
}

ssize_t Read(const char* name, int fd, void* buffer, size_t size, off_t offset) {
  using Function = ssize_t (*)(int, void*, size_t, off_t);
  const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  const ssize_t count = real(fd, buffer, size, offset);
  if (count == 0 && size != 0) {
    Swap();
  }
  return count;
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" {

#ifndef _FILE_OFFSET_BITS  // with it both have the second name
ssize_t pread(int fd, void* buffer, size_t size, off_t offset) { return Read("pread", fd, buffer, size, offset); }
#endif
ssize_t pread64(int fd, void* buffer, size_t size, off_t offset) { return Read("pread64", fd, buffer, size, offset); }

}  // extern "C"

#pragma GCC visibility pop
