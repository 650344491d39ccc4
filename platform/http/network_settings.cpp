#include "platform/http/network_settings.h"

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/err.h>

#include <optional>
#include <stdexcept>

#include "platform/http/network_values.h"
#include "platform/posix/file_status.h"
#include "platform/posix/openssl.h"
#include "platform/settings_file.h"

namespace orbamira {
namespace {

// Without the value: a proxy's may have a password in it.
[[noreturn]] void Refuse(const Setting& setting, const char* key, const char* form) {
  throw std::runtime_error("a setting cannot be used: " + setting.file + ": " + key + " is not " + form);
}

std::string ReadText(const char* key, bool (*is_valid)(const std::string&), const char* form) {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(key);
  if (setting && !is_valid(setting->value)) {
    Refuse(*setting, key, form);
  }
  return setting ? setting->value : "";
}

// Whether the file begins with a certificate that can be read; libcurl tells only in a transfer by TLS.
bool HasCertificate(const std::string& file) {
  std::error_code error;
  if (!IsCaFile(file) || !std::filesystem::is_regular_file(StatusOf(file, error))) {
    return false;
  }
  const Owned<BIO, BIO_free> source(BIO_new_file(file.c_str(), "r"));
  const Owned<X509, X509_free> first(source ? PEM_read_bio_X509(source.get(), nullptr, GiveNoPassphrase, nullptr)
                                            : nullptr);
  ERR_clear_error();
  return first != nullptr;
}

std::int64_t ReadRate() {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(kDownloadRateSetting);
  const std::optional<std::int64_t> rate = setting ? ParseDownloadRate(setting->value) : 0;
  if (!rate) {
    Refuse(*setting, kDownloadRateSetting, kDownloadRateForm);
  }
  return *rate;
}

}  // namespace

NetworkSettings ReadNetworkSettings() {
  return {.proxy = ReadText(kProxySetting, IsProxyAddress, kProxyForm),
          .ca_file = ReadText(kCaFileSetting, HasCertificate, kCaFileForm),
          .download_rate = ReadRate()};
}

void UseNetworkSettings(cpr::Session& session, const NetworkSettings& settings) {
  CURL* const curl = session.GetCurlHolder()->handle;
  if (!settings.proxy.empty()) {
    curl_easy_setopt(curl, CURLOPT_PROXY, settings.proxy.c_str());
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "");  // in place of what the environment says
  }
  if (!settings.ca_file.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, settings.ca_file.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXY_CAINFO, settings.ca_file.c_str());
    // libcurl would go on believing the system's too.
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(curl, CURLOPT_PROXY_CAPATH, nullptr);
  }
}

}  // namespace orbamira
