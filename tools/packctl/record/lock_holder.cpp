#include "tools/packctl/record/lock_holder.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace orbamira::packctl {

std::optional<int> HolderOf(const std::string& lock_path) {
  struct stat lock {};
  if (stat(lock_path.c_str(), &lock) != 0) {
    return std::nullopt;
  }
  // A line of the kernel's: "1: FLOCK  ADVISORY  WRITE 4711 fe:01:265 0 EOF"; that of a waiter has an arrow in it.
  std::array<char, 64> name{};
  static_cast<void>(std::snprintf(name.data(), name.size(), "%02x:%02x:%ju", major(lock.st_dev), minor(lock.st_dev),
                                  static_cast<std::uintmax_t>(lock.st_ino)));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string advisory;
    std::string access;
    std::string file;
    int holder = 0;
    words >> number >> kind >> advisory >> access >> holder >> file;
    if (kind == "FLOCK" && access == "WRITE" && file == name.data()) {
      return holder;
    }
  }
  return std::nullopt;
}

}  // namespace orbamira::packctl
