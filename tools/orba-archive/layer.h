#pragma once

namespace orbamira::tools {

/// A pack comes as two archives, one inside the other. The name under which the program is called says which one to
/// expect, never the bytes: nobody can avoid the checks of a package by sending something else.
enum class Layer {
  kPackage,  ///< a plain tar of regular files: INFO, package.tgz and their signature
  kPayload,  ///< package.tgz: a gzip-compressed tar of a whole tree
};

}  // namespace orbamira::tools
