#pragma once

#include <memory>

#include "platform/download_wrapper.h"

namespace orbamira {

/// Makes a download whose link is the path of a regular file, such as one on a stick; never empty. It keeps the limits
/// and the promises of the others and needs no network. A file that cannot be read to its end is a transport failure.
/// Not installed.
std::shared_ptr<wrapper::DownloadWrapper> MakeFileDownload();

}  // namespace orbamira
