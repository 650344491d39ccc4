#pragma once

#include <cpr/cpr.h>
#include <curl/curl.h>
#include <strings.h>

#include <string>

// Confines requests to http and https. Not installed.
namespace orbamira {

/// Called by curl before each request of a transfer. After a request by https, only https may follow.
inline int LimitRedirects(void* curl, char* /*remote*/, char* /*local*/, int /*remote_port*/, int /*local_port*/) {
  char* scheme = nullptr;
  curl_easy_getinfo(curl, CURLINFO_SCHEME, &scheme);
  const bool is_https = scheme != nullptr && strcasecmp(scheme, "https") == 0;
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, is_https ? "https" : "http,https");
  return CURL_PREREQFUNC_OK;
}

/// Sets the session's URL and lets it use only http and https, also behind redirects: ten at most, and at no step from
/// https to http. No cookie is sent. Call it again for each URL.
inline void SetHttpUrl(cpr::Session& session, const std::string& url) {
  constexpr long kRedirects = 10;
  session.SetUrl(cpr::Url(url));
  session.SetRedirect(cpr::Redirect(kRedirects));
  CURL* const curl = session.GetCurlHolder()->handle;
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_PREREQFUNCTION, LimitRedirects);
  curl_easy_setopt(curl, CURLOPT_PREREQDATA, curl);
  curl_easy_setopt(curl, CURLOPT_COOKIEFILE, nullptr);
}

}  // namespace orbamira
