#include "tools/packctl/policy/state_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "platform/json/json_line.h"
#include "platform/json/json_object.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/files.h"

namespace orbamira::packctl {

StateText ReadStateFile(const std::string& file) try {
  constexpr std::size_t kMost = 64UL * 1024;
  const UniqueFd fd = OpenFile(file, O_RDONLY);
  if (!fd.valid()) {
    return {.exists = errno != ENOENT};
  }
  return {.exists = true, .object = ParseJsonObject(ReadUpTo(fd.get(), kMost).value_or(""))};
} catch (const std::exception&) {
  return {.exists = true};
}

void WriteStateFile(const std::string& file, const Json::Value& object) {
  constexpr mode_t kMode = 0644;
  const std::string text = JsonLine(object);
  ReservedFile(file, text.size()).Replace(text, kMode);
}

void RemoveStateFile(const std::string& file) {
  for (const std::string& path : {file, ReservedFile::NameBeside(file)}) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      ThrowErrno("cannot remove " + path);
    }
  }
}

}  // namespace orbamira::packctl
