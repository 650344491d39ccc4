#include "tools/orba-archive/staged_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <random>

#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"

namespace orbamira::tools {

StagedFiles::StagedFiles(int folder)
    : folder_(folder), prefix_(".orba-archive." + std::to_string(std::random_device()()) + ".") {}

StagedFiles::~StagedFiles() {
  for (size_t i = 0; i < names_.size(); ++i) {
    static_cast<void>(unlinkat(folder_, (i < published_ ? names_[i] : StagedName(i)).c_str(), 0));
  }
}

UniqueFd StagedFiles::Add(const std::string& name, mode_t mode) {
  const std::string staged = StagedName(names_.size());
  names_.push_back(name);
  UniqueFd file(openat(folder_, staged.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (!file.valid()) {
    ThrowErrno(name);
  }
  return file;
}

void StagedFiles::Publish() {
  for (; published_ < names_.size(); ++published_) {
    const std::string& name = names_[published_];
    if (!RenameToFree(folder_, StagedName(published_), name)) {
      ThrowErrno(name);
    }
  }
  names_.clear();
}

std::string StagedFiles::StagedName(size_t index) const { return prefix_ + std::to_string(index); }

}  // namespace orbamira::tools
