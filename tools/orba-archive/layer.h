#pragma once

namespace orbamira::tools {

/// The two archives inside one another that a pack comes in. Which of them is meant follows from the name the program
/// is called by, never from the bytes: what is demanded of a package cannot be dodged by sending something else.
enum class Layer {
  kPackage,  ///< a plain tar of regular files: INFO, package.tgz and what vouches for them
  kPayload,  ///< package.tgz: a gzip-compressed tar of a whole tree
};

}  // namespace orbamira::tools
