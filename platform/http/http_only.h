#pragma once

#include <cpr/cpr.h>
#include <curl/curl.h>
#include <strings.h>

#include <string>

// How each request for a reply or a package is confined. Not installed; all in the header, because the platform's
// library exports nothing of it and the updater's needs it too.
namespace orbamira {

/// What may follow the request that is about to be made: after one by https, https alone.
inline int LimitRedirects(void* curl, char* /*remote*/, char* /*local*/, int /*remote_port*/, int /*local_port*/) {
  char* scheme = nullptr;
  curl_easy_getinfo(curl, CURLINFO_SCHEME, &scheme);
  const bool is_https = scheme != nullptr && strcasecmp(scheme, "https") == 0;
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, is_https ? "https" : "http,https");
  return CURL_PREREQFUNC_OK;
}

/// Lets the session GET `url` by http or https alone, also behind redirects: ten of them at most, at no step from https
/// to http, and no cookie is taken along. Once for each URL.
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
