#include "platform/cpr_session.h"

#include <curl/curl.h>

#include <system_error>

#include "platform/http/body_file.h"
#include "platform/http/http_only.h"
#include "platform/http/http_transfer.h"
#include "platform/http/size_limit.h"

namespace orbamira::wrapper {

std::shared_ptr<ICprSession> CprSession::Create() { return std::make_shared<CprSession>(); }

CprSession::CprSession() { SetUpForDownloads(session_); }

void CprSession::SetUrl(const cpr::Url& url) { SetHttpUrl(session_, url.str()); }

cpr::Response CprSession::DownloadToFile(std::ofstream& file) {
  cpr::Response response;
  try {
    const SizeLimit limit = SizeLimitFromSettings();
    BodyFile body(file);
    std::int64_t size = 0;
    response = Fetch(session_, TransferLimits{}, [&](std::string_view bytes) {
      size += static_cast<std::int64_t>(bytes.size());
      if (size > limit.bytes) {
        body.StartOver();  // others need the room
      }
      ExpectWithin(limit, size);
      body.Write(bytes);
      return true;
    });
    body.Flush();
  } catch (const std::system_error& error) {
    response.error = cpr::Error(CURLE_WRITE_ERROR, error.what());
  }
  if (response.error) {
    response.status_code = 0;
  }
  return response;
}

}  // namespace orbamira::wrapper
