#include "tools/packctl/policy/pack_users.h"

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

#include "platform/constants.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

// A line is "7f0000000000-7f0000001000 r-xp 00000000 fe:01 265  /folder/file": whose name may hold blanks.
bool IsOf(const PackFiles& pack, const std::string& line) {
  std::istringstream words(line);
  std::string skipped;
  unsigned int major_number = 0;
  unsigned int minor_number = 0;
  char colon = 0;
  unsigned long inode = 0;
  words >> skipped >> skipped >> skipped >> std::hex >> major_number >> colon >> minor_number >> std::dec >> inode;
  if (!words || inode == 0) {
    return false;
  }
  if (pack.files.contains({makedev(major_number, minor_number), inode})) {
    return true;
  }
  std::string name;
  std::getline(words >> std::ws, name);
  return name.starts_with(pack.folder + "/") && !name.ends_with(" (deleted)");
}

bool IsNumber(const std::string& text) {
  return std::ranges::all_of(text, [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

PackFiles FilesOf(const std::string& folder) {
  PackFiles pack{.folder = folder, .files = {}};
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; entry != end && !error; entry.increment(error)) {
    struct stat about {};
    if (lstat(entry->path().c_str(), &about) == 0 && S_ISREG(about.st_mode)) {
      pack.files.emplace(about.st_dev, about.st_ino);
    }
  }
  return pack;
}

bool AreMapped(const PackFiles& pack, std::istream& maps) {
  for (std::string line; std::getline(maps, line);) {
    if (IsOf(pack, line)) {
      return true;
    }
  }
  return false;
}

bool IsPackInUse() {
  const PackFiles pack = FilesOf(path::kPackFolderPath);
  if (pack.files.empty()) {
    return false;
  }
  std::error_code error;
  for (fs::directory_iterator process("/proc", error), end; process != end && !error; process.increment(error)) {
    if (IsNumber(process->path().filename())) {
      std::ifstream maps(process->path() / "maps");
      if (AreMapped(pack, maps)) {
        return true;
      }
    }
  }
  return false;
}

void GiveUpLookingIntoProcesses() {
  // Without a library: it is two calls, and few appliances have libcap.
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  if (syscall(SYS_capget, &header, sets.data()) != 0) {
    return;
  }
  constexpr unsigned int kBits = 32;
  constexpr unsigned int kRight = 1U << (CAP_SYS_PTRACE % kBits);
  auto& set = sets.at(CAP_SYS_PTRACE / kBits);
  set.effective &= ~kRight;
  set.permitted &= ~kRight;
  set.inheritable &= ~kRight;
  static_cast<void>(syscall(SYS_capset, &header, sets.data()));
}

}  // namespace orbamira::packctl
