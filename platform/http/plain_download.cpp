#include "platform/http/plain_download.h"

#include <curl/curl.h>

#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "platform/http/body_file.h"
#include "platform/http/http_transfer.h"
#include "platform/http/size_limit.h"

namespace orbamira {

cpr::Response DownloadOnce(cpr::Session& session, std::ofstream& file) {
  cpr::Response response;
  try {
    const SizeLimit limit = SizeLimitFromSettings();
    BodyFile body(file);
    std::int64_t size = 0;
    const TransferLimits limits{.rate = ReadNetworkSettings().download_rate};
    response = Fetch(session, limits, [&](std::string_view bytes) {
      size += static_cast<std::int64_t>(bytes.size());
      if (size > limit.bytes) {
        body.StartOver();  // others need the room
      }
      ExpectWithin(limit, size);
      body.Write(bytes);
      return true;
    });
    body.Flush();
  } catch (const std::runtime_error& error) {
    response.error = cpr::Error(CURLE_WRITE_ERROR, error.what());
  }
  if (response.error) {
    response.status_code = 0;
  }
  return response;
}

}  // namespace orbamira
