#include "tools/packctl/policy/state_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <filesystem>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/json/json_object.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/files.h"

namespace orbamira::packctl {

std::string StateFile(const std::string& name) {
  return std::filesystem::path(path::kHistoryFile).replace_filename(name);
}

StateText ReadStateFile(const std::string& name) try {
  constexpr std::size_t kMost = 64UL * 1024;
  const UniqueFd file = OpenFile(StateFile(name), O_RDONLY);
  if (!file.valid()) {
    return {.exists = errno != ENOENT};
  }
  return {.exists = true, .object = ParseJsonObject(ReadUpTo(file.get(), kMost).value_or(""))};
} catch (const std::exception&) {
  return {.exists = true};
}

void WriteStateFile(const std::string& name, const Json::Value& object) {
  constexpr mode_t kMode = 0644;
  const std::string text = JsonLine(object);
  ReservedFile(StateFile(name), text.size()).Replace(text, kMode);
}

void RemoveStateFile(const std::string& name) {
  const std::string file = StateFile(name);
  for (const std::string& path : {file, ReservedFile::NameBeside(file)}) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      ThrowErrno("cannot remove " + path);
    }
  }
}

}  // namespace orbamira::packctl
