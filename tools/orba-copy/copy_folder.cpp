#include "tools/orba-copy/copy_folder.h"

#include <fcntl.h>

#include "platform/posix/files.h"
#include "tools/orba-copy/partial_folder.h"
#include "tools/orba-copy/tree_copier.h"

namespace orbamira::tools {

void CopyFolder(const std::string& source, const std::string& target) {
  const UniqueFd from = OpenDirectory(AT_FDCWD, source, source);
  PartialFolder partial(target);
  TreeCopier copier(partial.get());
  copier.Copy(from.get(), source);
  MakeDurable(partial.get(), target);
  copier.CheckUnchanged(from.get(), source);
  partial.MoveIntoPlace();
}

}  // namespace orbamira::tools
