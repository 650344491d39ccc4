#include <curl/curl.h>
#include <openssl/crypto.h>

#include <charconv>
#include <new>
#include <stdexcept>
#include <system_error>

#include "platform/account/renewal.h"
#include "platform/http/bounded_reply.h"
#include "platform/http/http_only.h"
#include "platform/http/http_transfer.h"
#include "platform/http/network_settings.h"
#include "platform/http/plain_download.h"
#include "platform/network/network.h"

namespace orbamira {
namespace {

std::optional<std::uint64_t> LengthOf(const cpr::Header& header) {
  const auto length = header.find("Content-Length");
  std::uint64_t bytes = 0;
  if (length == header.end()) {
    return std::nullopt;
  }
  const std::string& text = length->second;
  const auto error = std::from_chars(text.data(), text.data() + text.size(), bytes).ec;
  return error == std::errc() ? std::optional<std::uint64_t>(bytes) : std::nullopt;
}

class CurlNetwork final : public Network {
 public:
  [[nodiscard]] NetworkReply Ask(const NetworkRequest& request) const override {
    cpr::Session session;
    try {
      UseNetworkSettings(session, ReadNetworkSettings());
    } catch (const std::runtime_error& error) {
      return {.failed = true, .error = error.what()};
    }
    SetHttpUrl(session, request.url);
    cpr::Parameters parameters;
    for (const auto& [key, value] : request.query) {
      parameters.Add({key, value});
    }
    session.SetParameters(parameters);
    if (request.connect_limit.count() > 0) {
      session.SetConnectTimeout(request.connect_limit);
    }
    if (request.limit.count() > 0) {
      session.SetTimeout(request.limit);
    }
    const SendRequest send = request.is_head ? &cpr::Session::Head : &cpr::Session::Get;
    auto [response, is_too_long] = SendBounded(session, send, request.most_bytes);
    return {.status = response.status_code,
            .failed = static_cast<bool>(response.error),
            .error = std::move(response.error.message),
            .is_too_long = is_too_long,
            .body = std::move(response.text),
            .date = DateOf(response.header),
            .length = LengthOf(response.header)};
  }

  [[nodiscard]] std::string Libraries() const override {
    return std::string("libcurl ") + curl_version_info(CURLVERSION_NOW)->version + ", OpenSSL " +
           OpenSSL_version(OPENSSL_VERSION_STRING);
  }

  [[nodiscard]] std::shared_ptr<wrapper::DownloadWrapper> MakeDownload(const DownloadPolicy& policy) const override {
    return orbamira::MakeDownload(policy);
  }

  void MakeSession(cpr::Session* place) const override {
    const NetworkSettings settings = ReadNetworkSettings();
    SetUpForDownloads(*new (place) cpr::Session(), settings);
  }

  void DestroySession(cpr::Session& session) const override { session.~Session(); }

  void SetUrl(cpr::Session& session, const cpr::Url& url) const override { SetHttpUrl(session, url.str()); }

  [[nodiscard]] cpr::Response DownloadToFile(cpr::Session& session, std::ofstream& file) const override {
    return DownloadOnce(session, file);
  }

  [[nodiscard]] std::string RenewIdToken(const std::string& client) const override {
    return orbamira::RenewIdToken(client);
  }
};

}  // namespace

const Network& LoadNetwork() {
  static constexpr CurlNetwork network;
  return network;
}

}  // namespace orbamira
