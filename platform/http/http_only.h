#pragma once

#include <cpr/cpr.h>
#include <curl/curl.h>
#include <strings.h>

#include <string>

// How each request for a reply or a package is confined. Not installed; all in the header, because the platform's
// library exports nothing of it and the updater's needs it too.
namespace orbamira::wrapper {

/// Lets the session GET `url` by http or https alone, also behind redirects: ten of them at most, never from https to
/// http, and no cookie is taken along. Once for each URL.
inline void SetHttpUrl(cpr::Session& session, const std::string& url) {
  constexpr long kRedirects = 10;
  constexpr const char* kHttps = "https:";
  const bool is_https = strncasecmp(url.c_str(), kHttps, std::char_traits<char>::length(kHttps)) == 0;
  session.SetUrl(cpr::Url(url));
  session.SetRedirect(cpr::Redirect(kRedirects));
  CURL* const curl = session.GetCurlHolder()->handle;
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, is_https ? "https" : "http,https");
  curl_easy_setopt(curl, CURLOPT_COOKIEFILE, nullptr);
}

}  // namespace orbamira::wrapper
