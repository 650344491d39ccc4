#include "platform/cpr_session.h"

#include <curl/curl.h>

#include <system_error>

#include "platform/http/body_file.h"
#include "platform/http/http_only.h"
#include "platform/http/http_transfer.h"

namespace orbamira::wrapper {

std::shared_ptr<ICprSession> CprSession::Create() { return std::make_shared<CprSession>(); }

CprSession::CprSession() { SetUpForDownloads(session_); }

void CprSession::SetUrl(const cpr::Url& url) { SetHttpUrl(session_, url.str()); }

cpr::Response CprSession::DownloadToFile(std::ofstream& file) {
  cpr::Response response;
  try {
    BodyFile body(file);
    response = Fetch(session_, TransferLimits{}, [&body](std::string_view bytes) {
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
