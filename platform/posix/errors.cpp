#include "platform/posix/errors.h"

#include <system_error>

namespace orbamira {

void ThrowErrno(const std::string& what, int error) {
  throw std::system_error(error != 0 ? error : EIO, std::generic_category(), what);
}

}  // namespace orbamira
