#include <dlfcn.h>
#include <link.h>

#include <array>
#include <climits>
#include <stdexcept>
#include <string>

#include "platform/network/module.h"

namespace orbamira {
namespace {

std::string LoaderError() { return dlerror(); }  // NOLINT(concurrency-mt-unsafe): each thread has its own

// Where the loader found this library: an absolute path, even if the host gave another.
std::string OwnFolder() {
  static constexpr char kInThisLibrary = 0;
  Dl_info about{};
  void* self = nullptr;
  std::array<char, PATH_MAX> folder{};
  if (dladdr1(&kInThisLibrary, &about, &self, RTLD_DL_LINKMAP) == 0 ||
      dlinfo(self, RTLD_DI_ORIGIN, folder.data()) != 0) {
    throw std::runtime_error("cannot tell where the library is: " + LoaderError());
  }
  return folder.data();
}

const Network& LoadModule() {
  const std::string file = OwnFolder() + "/" ORBAMIRA_MODULE_FILE;
  void* const module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    throw std::runtime_error("cannot load the network module: " + LoaderError());
  }
  const auto find = reinterpret_cast<decltype(&orbamira_network)>(dlsym(module, "orbamira_network"));
  const Network* const network = find != nullptr ? find(ORBAMIRA_VERSION) : nullptr;
  if (network == nullptr) {
    throw std::runtime_error("the network module " + file + " is not of version " ORBAMIRA_VERSION);
  }
  return *network;
}

}  // namespace

const Network& LoadNetwork() {
  static const Network& network = LoadModule();
  return network;
}

}  // namespace orbamira
