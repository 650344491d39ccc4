#pragma once

#include <string>

#include "tools/orba-archive/layer.h"

namespace orbamira::fuzz {

/// Unpacks the archive as the tools do and checks what it left: all that was promised inside the folder, nothing
/// outside it, and nothing there that was not of the archive.
void UnpackAndCheck(const std::string& archive, tools::Layer layer);

}  // namespace orbamira::fuzz
