#include "platform/http/http_only.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "platform/posix/unique_fd.h"
#include "tests/support/http_server.h"

namespace orbamira::wrapper {
namespace {

using test::HttpRequest;
using test::HttpResponse;
using test::HttpServer;
using testing::IsEmpty;
using testing::SizeIs;

template <typename T, void (*Free)(T*)>
struct Freed {
  void operator()(T* object) const { Free(object); }
};

void Check(bool done) {
  if (!done) {
    throw std::runtime_error("cannot set up the TLS server");
  }
}

// A server with a certificate of its own making that answers each request by the same redirect.
class RedirectingTlsServer {
 public:
  explicit RedirectingTlsServer(std::string target)
      : target_(std::move(target)),
        context_(SSL_CTX_new(TLS_server_method())),
        listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
        stop_(eventfd(0, EFD_CLOEXEC)) {
    UseNewCertificate();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Check(bind(listener_.get(), generic, size) == 0 && listen(listener_.get(), 8) == 0 &&
          getsockname(listener_.get(), generic, &size) == 0);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }

  ~RedirectingTlsServer() {
    static_cast<void>(eventfd_write(stop_.get(), 1));
    thread_.join();
  }
  RedirectingTlsServer(const RedirectingTlsServer&) = delete;
  RedirectingTlsServer& operator=(const RedirectingTlsServer&) = delete;

  [[nodiscard]] std::string Url(const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(port_) + "/";
  }

 private:
  void UseNewCertificate() {
    const std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY, EVP_PKEY_free>> key(EVP_EC_gen("P-256"));
    const std::unique_ptr<X509, Freed<X509, X509_free>> certificate(X509_new());
    Check(key && certificate && X509_set_version(certificate.get(), 2) == 1 &&
          X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) != nullptr &&
          X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600) != nullptr &&
          X509_set_pubkey(certificate.get(), key.get()) == 1 &&
          X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0 &&
          SSL_CTX_use_certificate(context_.get(), certificate.get()) == 1 &&
          SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1);
  }

  void Serve() const {
    while (true) {
      std::array waits = {pollfd{listener_.get(), POLLIN, 0}, pollfd{stop_.get(), POLLIN, 0}};
      if (poll(waits.data(), waits.size(), -1) < 0 || waits[1].revents != 0) {
        return;
      }
      const UniqueFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client.valid()) {
        Answer(client.get());
      }
    }
  }

  void Answer(int client) const {
    const std::unique_ptr<SSL, Freed<SSL, SSL_free>> tls(SSL_new(context_.get()));
    const std::string answer =
        "HTTP/1.1 302 Found\r\nLocation: " + target_ + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    std::array<char, 4096> request{};
    if (SSL_set_fd(tls.get(), client) == 1 && SSL_accept(tls.get()) == 1 &&
        SSL_read(tls.get(), request.data(), static_cast<int>(request.size())) > 0) {
      SSL_write(tls.get(), answer.data(), static_cast<int>(answer.size()));
      SSL_shutdown(tls.get());
    }
  }

  std::string target_;
  std::unique_ptr<SSL_CTX, Freed<SSL_CTX, SSL_CTX_free>> context_;
  UniqueFd listener_;
  UniqueFd stop_;
  int port_ = 0;
  std::thread thread_;
};

cpr::Response Send(cpr::Session& session, const std::string& url) {
  SetHttpUrl(session, url);
  session.SetVerifySsl(cpr::VerifySsl(false));
  return session.Get();
}

TEST(SetHttpUrlTest, SetHttpUrlRefusesARedirectFromHttpsToHttp) {
  HttpServer plain([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  const RedirectingTlsServer server(plain.Url());
  for (const char* scheme : {"https", "HTTPS"}) {
    cpr::Session session;
    const cpr::Response response = Send(session, server.Url(scheme));
    EXPECT_EQ(response.status_code, 302);
    EXPECT_EQ(response.error.code, cpr::ErrorCode::UNSUPPORTED_PROTOCOL) << response.error.message;
  }
  EXPECT_THAT(plain.Requests(), IsEmpty());
}

TEST(SetHttpUrlTest, SetHttpUrlFollowsARedirectFromHttpToHttps) {
  const RedirectingTlsServer secure("ftp://127.0.0.1/");
  HttpServer plain([&](const HttpRequest&) {
    return HttpResponse{.status = 301, .headers = {{"Location", secure.Url("https")}}};
  });
  cpr::Session session;
  EXPECT_EQ(Send(session, plain.Url()).status_code, 302);
}

TEST(SetHttpUrlTest, SetHttpUrlRefusesARedirectFromHttpsToHttpAlsoLaterOnTheWay) {
  HttpServer last([](const HttpRequest&) { return HttpResponse{.body = "body"}; });
  const RedirectingTlsServer secure(last.Url());
  HttpServer first([&](const HttpRequest&) {
    return HttpResponse{.status = 301, .headers = {{"Location", secure.Url("https")}}};
  });
  cpr::Session session;
  const cpr::Response response = Send(session, first.Url());
  EXPECT_EQ(response.status_code, 302);
  EXPECT_EQ(response.error.code, cpr::ErrorCode::UNSUPPORTED_PROTOCOL) << response.error.message;
  EXPECT_THAT(last.Requests(), IsEmpty());
}

TEST(SetHttpUrlTest, SetHttpUrlAllowsTheSameWayAgain) {
  const RedirectingTlsServer secure("ftp://127.0.0.1/");
  HttpServer plain([&](const HttpRequest& request) {
    return HttpResponse{.status = 301,
                        .headers = {{"Location", request.target == "/" ? "/next" : secure.Url("https")}}};
  });
  cpr::Session session;
  EXPECT_EQ(Send(session, plain.Url()).status_code, 302);
  EXPECT_EQ(session.Get().status_code, 302);
  EXPECT_THAT(plain.Requests(), SizeIs(4));
}

TEST(SetHttpUrlTest, SetHttpUrlHoldsOnlyTheUrlToWhatItsSchemeAllows) {
  HttpServer plain([](const HttpRequest& request) {
    return request.target == "/end" ? HttpResponse{} : HttpResponse{.status = 301, .headers = {{"Location", "/end"}}};
  });
  const RedirectingTlsServer server(plain.Url());
  cpr::Session session;
  EXPECT_EQ(Send(session, server.Url("https")).status_code, 302);
  EXPECT_EQ(Send(session, plain.Url()).status_code, 200);
}

TEST(SetHttpUrlTest, SetHttpUrlTakesNoCookieAlong) {
  HttpServer server([](const HttpRequest& request) {
    return HttpResponse{.status = request.target == "/end" ? 200 : 301,
                        .headers = {{"Location", "/end"}, {"Set-Cookie", "name=value; Path=/"}}};
  });
  cpr::Session session;
  EXPECT_EQ(Send(session, server.Url()).status_code, 200);
  EXPECT_EQ(Send(session, server.Url()).status_code, 200);
  ASSERT_THAT(server.Requests(), SizeIs(4));
  for (const HttpRequest& request : server.Requests()) {
    EXPECT_EQ(request.Header("Cookie"), "") << request.target;
  }
}

}  // namespace
}  // namespace orbamira::wrapper
