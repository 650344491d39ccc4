#pragma once

#include <cpr/cpr.h>

#include <fstream>

namespace orbamira {

/// Fetches the URL of a session that SetUpForDownloads() prepared, as CprSession::DownloadToFile() says.
[[nodiscard]] cpr::Response DownloadOnce(cpr::Session& session, std::ofstream& file);

}  // namespace orbamira
