#include "platform/posix/pack_libraries.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <functional>
#include <string_view>

#include "platform/posix/file_status.h"
#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

bool IsNamedAsLibrary(std::string_view name) {
  constexpr std::string_view kMark = ".so.";
  if (name.ends_with(".debug")) {
    return false;
  }
  const std::size_t mark = name.find(kMark);
  return name.ends_with(".so") || (mark != std::string_view::npos && mark + kMark.size() < name.size() &&
                                   std::isdigit(static_cast<unsigned char>(name[mark + kMark.size()])) != 0);
}

bool BeginsAsElf(const std::string& path) {
  constexpr std::string_view kMagic = "\177ELF";
  const UniqueFd file = OpenFile(path, O_RDONLY);
  if (!file.valid()) {
    ThrowErrno(path);
  }
  std::array<char, kMagic.size()> begin{};
  return std::string_view(begin.data(), ReadFully(file.get(), begin.data(), begin.size(), path)) == kMagic;
}

/// Until `take` wants no more.
void VisitLibraries(const std::string& folder, const std::function<bool(const std::string&)>& take) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    const std::string path = entry.path();
    if (fs::is_regular_file(LinkStatusOf(entry.path())) && IsNamedAsLibrary(entry.path().filename().native()) &&
        BeginsAsElf(path) && !take(path)) {
      return;
    }
  }
}

}  // namespace

std::vector<std::string> FindLibraries(const std::string& folder) {
  std::vector<std::string> found;
  VisitLibraries(folder, [&found](const std::string& path) {
    found.push_back(path);
    return true;
  });
  std::sort(found.begin(), found.end());
  return found;
}

bool HasLibraries(const std::string& folder) {
  bool found = false;
  VisitLibraries(folder, [&found](const std::string& /*path*/) {
    found = true;
    return false;
  });
  return found;
}

}  // namespace orbamira
