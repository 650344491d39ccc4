#include "tools/packctl/cli/version_text.h"

#include <CLI/Version.hpp>
#include <cpr/cprver.h>
#include <curl/curl.h>
#include <json/version.h>
#include <openssl/crypto.h>

namespace orbamira::packctl {

std::string VersionText() {
  // libcurl and OpenSSL speak to the network, and the system renews them without us: what counts is what is there now.
  return std::string("packctl " PACKCTL_VERSION) + "\nBuild:     " PACKCTL_BUILD + "\nLibraries: libcurl " +
         curl_version_info(CURLVERSION_NOW)->version + ", OpenSSL " + OpenSSL_version(OPENSSL_VERSION_STRING) +
         ", cpr " CPR_VERSION ", jsoncpp " JSONCPP_VERSION_STRING ", CLI11 " CLI11_VERSION;
}

}  // namespace orbamira::packctl
