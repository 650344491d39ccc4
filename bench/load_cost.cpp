// Loads the library and makes its main object, in a process that has loaded nothing of it before:
//
//   load_cost LIBRARY
//
// Prints a JSON object: "dlopen" and "create", seconds of processor time for the one and the other.

#include <dlfcn.h>
#include <json/json.h>

#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "updater/pack_manager.h"

namespace {

using Create = std::unique_ptr<orbamira::updater::IPackManager>();

// orbamira::updater::PackManager::Create()
constexpr const char* kCreate = "_ZN8orbamira7updater11PackManager6CreateEv";

double CpuTime() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

[[noreturn]] void Fail() { throw std::runtime_error(dlerror()); }  // NOLINT(concurrency-mt-unsafe): there is one thread

Json::Value Measure(const char* library) {
  const double begin = CpuTime();
  void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    Fail();
  }
  const double loaded = CpuTime();
  auto* const create = reinterpret_cast<Create*>(dlsym(handle, kCreate));
  if (create == nullptr) {
    Fail();
  }
  const auto manager = create();
  const double created = CpuTime();
  if (manager == nullptr) {
    throw std::runtime_error("the library makes no object here");
  }
  Json::Value result;
  result["dlopen"] = loaded - begin;
  result["create"] = created - loaded;
  return result;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) {
    std::cerr << "usage: load_cost LIBRARY\n";
    return EXIT_FAILURE;
  }
  std::cout << Measure(argv[1]) << '\n';
  return EXIT_SUCCESS;
} catch (const std::exception& error) {
  std::cerr << "load_cost: " << error.what() << '\n';
  return EXIT_FAILURE;
}
