#include "platform/account/oidc_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/constants.h"
#include "platform/orbazelo.h"
#include "tests/support/http_server.h"
#include "tests/support/oidc_provider.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;
using test::HttpResponse;
using test::OidcProvider;
using test::RefusingPort;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

// As a renewal does: the endpoint is what the provider says.
IssuedTokens RefreshFrom(const std::string& issuer, const std::string& client, const std::string& refresh_token,
                         const ProviderLimits& limits = {}) {
  return RefreshTokens(EndpointOf(DiscoverProvider(issuer, limits), "token_endpoint"), client, refresh_token, limits);
}

class RefreshTokensTest : public testing::Test {
 protected:
  RefreshTokensTest() { provider_.token_response["id_token"] = "new-id"; }

  IssuedTokens Refresh() { return RefreshFrom(provider_.issuer(), "client", "old-refresh"); }

  std::string FailureOf(const std::string& issuer, const ProviderLimits& limits = {}) {
    try {
      RefreshFrom(issuer, "client", "old-refresh", limits);
    } catch (const ZeloException& failure) {
      EXPECT_THAT(failure.what(), Not(HasSubstr("old-refresh")));
      return failure.what();
    }
    ADD_FAILURE() << "tokens were renewed";
    return "";
  }

  std::string Failure() { return FailureOf(provider_.issuer()); }

  OidcProvider provider_;
};

TEST_F(RefreshTokensTest, RefreshTokensSendsTheForm) {
  EXPECT_EQ(Refresh().id_token, "new-id");
  ASSERT_THAT(provider_.server().Requests(), SizeIs(2));
  const test::HttpRequest request = provider_.server().Requests()[1];
  EXPECT_EQ(request.Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request.Header("Accept"), "application/json");
  EXPECT_EQ(request.body, "grant_type=refresh_token&refresh_token=old-refresh&client_id=client");
}

TEST_F(RefreshTokensTest, RefreshTokensEncodesTheForm) {
  RefreshFrom(provider_.issuer(), "a client", "1+2/3=&x=y");
  EXPECT_EQ(provider_.LastForm(), "grant_type=refresh_token&refresh_token=1%2B2%2F3%3D%26x%3Dy&client_id=a%20client");
}

TEST_F(RefreshTokensTest, RefreshTokensReturnsARotatedToken) {
  EXPECT_EQ(Refresh().refresh_token, "");
  provider_.token_response["refresh_token"] = "new-refresh";
  EXPECT_EQ(Refresh().refresh_token, "new-refresh");
}

TEST_F(RefreshTokensTest, RefreshTokensDropsTheSlashBehindTheIssuer) {
  provider_.configuration["issuer"] = provider_.issuer() + "/";
  EXPECT_EQ(RefreshFrom(provider_.issuer() + "/", "client", "old-refresh").id_token, "new-id");
}

TEST_F(RefreshTokensTest, RefreshTokensRefusesAnIssuerThatIsNotSafe) {
  for (const std::string issuer :
       {"http://issuer.example", "http://127.0.0.1@issuer.example", "http://127.0.0.2.example", "ftp://127.0.0.1",
        "file:///etc", "issuer.example", "", "http://", "nonsense with blanks"}) {
    EXPECT_EQ(FailureOf(issuer), "the issuer is neither https nor on this machine: " + issuer);
  }
}

TEST_F(RefreshTokensTest, RefreshTokensLeavesNothingOfAnAddressBehind) {
  constexpr int kTimes = 1000;
  const auto fail = [&] {
    for (int i = 0; i < kTimes; ++i) {
      FailureOf("http://example.org");
    }
  };
  fail();
  const std::size_t before = mallinfo2().uordblks;
  fail();
  EXPECT_LT(mallinfo2().uordblks, before + 10 * kTimes);
}

TEST_F(RefreshTokensTest, RefreshTokensTakesTheLoopbackByAnyName) {
  const RefusingPort port;
  const std::string number = port.Url("").substr(port.Url("").rfind(':'));
  for (const std::string host : {"127.0.0.1", "localhost", "[::1]"}) {
    EXPECT_THAT(FailureOf(std::string("http://").append(host).append(number)),
                StartsWith("the request to the provider failed: "))
        << host;
  }
}

// To the proxy, 127.0.0.1 is another machine, which would be given the token.
TEST_F(RefreshTokensTest, RefreshTokensAsksAProviderOnThisMachineWithoutAProxy) {
  const RefusingPort proxy;
  ASSERT_EQ(setenv("http_proxy", proxy.Url("").c_str(), 1), 0);
  ASSERT_EQ(unsetenv("no_proxy"), 0);
  EXPECT_EQ(Refresh().id_token, "new-id");
  EXPECT_EQ(unsetenv("http_proxy"), 0);
}

TEST_F(RefreshTokensTest, RefreshTokensRefusesTheConfigurationOfAnotherIssuer) {
  for (const Json::Value& issuer :
       {Json::Value("https://other.example"), Json::Value(), Json::Value(7), Json::Value(Json::objectValue)}) {
    provider_.configuration["issuer"] = issuer;
    EXPECT_EQ(Failure(), "the provider's configuration is from another issuer than " + provider_.issuer());
  }
  EXPECT_EQ(provider_.TokenRequests(), 0U);
}

TEST_F(RefreshTokensTest, RefreshTokensShowsTheNameOfAnIssuerThatDiffersByASlash) {
  provider_.configuration["issuer"] = provider_.issuer() + "/";
  EXPECT_EQ(Failure(), "the provider's configuration is from another issuer than " + provider_.issuer() +
                           ": it names itself " + provider_.issuer() + "/");
  provider_.configuration["issuer"] = provider_.issuer();
  EXPECT_EQ(FailureOf(provider_.issuer() + "/"), "the provider's configuration is from another issuer than " +
                                                     provider_.issuer() + "/: it names itself " + provider_.issuer());
}

// A provider knows the tokens that it gave, and its name was shown.
TEST_F(RefreshTokensTest, RefreshTokensShowsNoTokenForAName) {
  provider_.configuration["issuer"] = "https://old-refresh";
  EXPECT_EQ(Failure(), "the provider's configuration is from another issuer than " + provider_.issuer());
}

TEST_F(RefreshTokensTest, RefreshTokensRefusesATokenEndpointThatIsNotSafe) {
  for (const Json::Value& endpoint :
       {Json::Value("http://other.example/token"), Json::Value("/token"), Json::Value(), Json::Value(7)}) {
    provider_.configuration["token_endpoint"] = endpoint;
    EXPECT_EQ(Failure(), "the provider's configuration has no token_endpoint that is https or on this machine");
  }
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAConfigurationThatIsMalformed) {
  for (const std::string body : {"", "<html>", "[]", "{", "7", "{} {}"}) {
    provider_.discovery_answer = [&] { return HttpResponse{.body = body}; };
    EXPECT_EQ(Failure(), "the provider's configuration is not a JSON object") << body;
  }
}

TEST_F(RefreshTokensTest, RefreshTokensReportsNestingWithoutEnd) {
  provider_.discovery_answer = [] { return HttpResponse{.body = std::string(500'000, '[')}; };
  EXPECT_EQ(Failure(), "the provider's configuration is not a JSON object");
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAnotherStatusOfDiscovery) {
  for (const int status : {301, 404, 500}) {
    provider_.discovery_answer = [&] { return HttpResponse{.status = status, .headers = {{"Location", "/x"}}}; };
    EXPECT_EQ(Failure(), "the provider answered " + std::to_string(status) + " when asked for its configuration");
  }
  EXPECT_THAT(provider_.server().Requests(), SizeIs(3));
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAnAnswerThatIsTooLong) {
  provider_.discovery_answer = [] { return HttpResponse{.body = std::string(1024 * 1024 + 1, ' ')}; };
  EXPECT_EQ(Failure(), "the provider's answer is over 1048576 bytes");
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAProviderThatIsDown) {
  const RefusingPort port;
  EXPECT_THAT(FailureOf(port.Url("")), StartsWith("the request to the provider failed: "));
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAProviderThatCannotBeConnectedTo) {
  const test::SilentPort port;
  const ProviderLimits limits{.connect = std::chrono::milliseconds(100), .whole = std::chrono::hours(1)};
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(FailureOf(port.Url(""), limits), StartsWith("the request to the provider failed: "));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAProviderThatStalls) {
  const ProviderLimits limits{.whole = std::chrono::milliseconds(200)};
  provider_.discovery_answer = [] { return HttpResponse{.body = "{}", .stall_at = 0}; };
  EXPECT_THAT(FailureOf(provider_.issuer(), limits), StartsWith("the request to the provider failed: "));
}

TEST_F(RefreshTokensTest, RefreshTokensWaitsNoLongerThanPromised) {
  EXPECT_EQ(ProviderLimits{}.connect, std::chrono::seconds(10));
  EXPECT_EQ(ProviderLimits{}.whole, std::chrono::seconds(20));
}

TEST_F(RefreshTokensTest, RefreshTokensQuotesTheProvidersReason) {
  provider_.token_answer = [] {
    return HttpResponse{.status = 400,
                        .body = R"({"error":"invalid_grant","error_description":"Token was\n revoked"})"};
  };
  EXPECT_EQ(Failure(),
            "the provider refused to renew the token: status 400, invalid_grant, Token was revoked; sign in again");
}

TEST_F(RefreshTokensTest, RefreshTokensNeverQuotesTheToken) {
  provider_.token_answer = [] {
    return HttpResponse{.status = 400, .body = R"({"error":"x","error_description":"old-refresh is unknown"})"};
  };
  EXPECT_EQ(Failure(), "the provider refused to renew the token: status 400, x");
}

// The token was looked for in the text as sent, and came together when the line break was dropped.
TEST_F(RefreshTokensTest, RefreshTokensNeverQuotesATokenBrokenByALineEnd) {
  provider_.token_answer = [] {
    return HttpResponse{.status = 400, .body = R"({"error":"x","error_description":"old-re\nfresh is unknown"})"};
  };
  EXPECT_EQ(Failure(), "the provider refused to renew the token: status 400, x");
}

TEST_F(RefreshTokensTest, RefreshTokensQuotesNoMoreThanItNeeds) {
  provider_.token_answer = [] {
    return HttpResponse{.status = 400, .body = R"({"error":")" + std::string(5000, 'x') + "\"}"};
  };
  EXPECT_EQ(Failure(), "the provider refused to renew the token: status 400, " + std::string(200, 'x'));
}

TEST_F(RefreshTokensTest, RefreshTokensReportsARefusalWithoutReason) {
  for (const std::string body : {"", "<html>", R"({"error":7})"}) {
    provider_.token_answer = [&] { return HttpResponse{.status = 503, .body = body}; };
    EXPECT_EQ(Failure(), "the provider refused to renew the token: status 503");
  }
}

TEST_F(RefreshTokensTest, RefreshTokensDoesNotFollowARedirectWithTheToken) {
  provider_.token_answer = [] { return HttpResponse{.status = 307, .headers = {{"Location", "/elsewhere"}}}; };
  EXPECT_EQ(Failure(), "the provider refused to renew the token: status 307");
  EXPECT_THAT(provider_.server().Requests(), SizeIs(2));
}

TEST_F(RefreshTokensTest, RefreshTokensReportsAnAnswerThatIsMalformed) {
  for (const std::string body : {"", "<html>", "[]", "{\"id_token\":"}) {
    provider_.token_answer = [&] { return HttpResponse{.body = body}; };
    EXPECT_EQ(Failure(), "the provider's answer is not a JSON object") << body;
  }
}

TEST_F(RefreshTokensTest, RefreshTokensReportsARefreshTokenThatCannotBeKept) {
  for (const Json::Value& token : {Json::Value(7), Json::Value("line\n"), Json::Value("\u00fc")}) {
    provider_.token_response["refresh_token"] = token;
    EXPECT_EQ(Failure(), "the provider's refresh token is malformed or too long");
  }
}

TEST_F(RefreshTokensTest, RefreshTokensTakesAnIdTokenThatIsNoTextForNone) {
  provider_.token_response["id_token"] = 7;
  EXPECT_EQ(Refresh().id_token, "");
}

TEST_F(RefreshTokensTest, RefreshTokensTellsTheProvidersClock) {
  provider_.clock_offset = -3600;
  const auto date = Refresh().date;
  ASSERT_TRUE(date);
  EXPECT_NEAR(static_cast<double>(*date), static_cast<double>(test::UnixTime() - 3600), 30);
  provider_.token_answer = [] { return HttpResponse{.headers = {{"Date", "yesterday"}}, .body = "{}"}; };
  EXPECT_FALSE(Refresh().date);
}

class ProviderTest : public testing::Test {
 protected:
  template <typename Action>
  static std::string FailureOf(Action action) {
    try {
      action();
    } catch (const ZeloException& failure) {
      return failure.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
  }

  OidcProvider provider_;
};

TEST_F(ProviderTest, ExchangeCodeSendsTheForm) {
  provider_.token_answer = [] {
    return HttpResponse{.body = R"({"id_token":"i","access_token":"a","refresh_token":"r"})"};
  };
  const IssuedTokens tokens =
      ExchangeCode(provider_.issuer() + "/token", {"a code", "http://127.0.0.1:1/x", "me", "v"});
  EXPECT_EQ(tokens.id_token, "i");
  EXPECT_EQ(tokens.access_token, "a");
  EXPECT_EQ(tokens.refresh_token, "r");
  EXPECT_EQ(provider_.LastForm(),
            "grant_type=authorization_code&code=a%20code&redirect_uri=http%3A%2F%2F127.0.0.1%3A1%2Fx&client_id=me&"
            "code_verifier=v");
}

TEST_F(ProviderTest, ExchangeCodeNeverQuotesWhatIsSecret) {
  for (const std::string text : {"the code secret-1 is unknown", "secret-2 does not fit"}) {
    provider_.token_answer = [&] {
      return HttpResponse{.status = 400, .body = R"({"error":"x","error_description":")" + text + "\"}"};
    };
    EXPECT_EQ(FailureOf([&] {
                ExchangeCode(provider_.issuer() + "/token", {"secret-1", "u", "c", "secret-2"});
              }),
              "the provider refused to give tokens for the sign-in: status 400, x");
  }
}

TEST_F(ProviderTest, ExchangeCodeDoesNotFollowARedirectWithTheCode) {
  provider_.token_answer = [] { return HttpResponse{.status = 307, .headers = {{"Location", "/elsewhere"}}}; };
  EXPECT_EQ(FailureOf([&] {
              ExchangeCode(provider_.issuer() + "/token", {"c", "u", "i", "v"});
            }),
            "the provider refused to give tokens for the sign-in: status 307");
  EXPECT_THAT(provider_.server().Requests(), SizeIs(1));
}

TEST_F(ProviderTest, ExchangeCodeReportsAProviderThatStalls) {
  provider_.token_answer = [] { return HttpResponse{.body = "{}", .stall_at = 0}; };
  EXPECT_THAT(
      FailureOf([&] {
        ExchangeCode(provider_.issuer() + "/token", {"c", "u", "i", "v"}, {.whole = std::chrono::milliseconds(200)});
      }),
      StartsWith("the request to the provider failed: "));
}

TEST_F(ProviderTest, RevokeTokenSendsTheForm) {
  RevokeToken(provider_.issuer() + "/revoke", "me", "token");
  EXPECT_EQ(provider_.LastForm(), "token=token&token_type_hint=refresh_token&client_id=me");
}

TEST_F(ProviderTest, RevokeTokenReportsARefusalWithoutTheToken) {
  provider_.revocation_answer = [] {
    return HttpResponse{.status = 503, .body = R"({"error":"x","error_description":"secret"})"};
  };
  EXPECT_EQ(FailureOf([&] { RevokeToken(provider_.issuer() + "/revoke", "me", "secret"); }),
            "the provider refused to revoke the token: status 503, x");
}

TEST_F(ProviderTest, DiscoverProviderAsksADistantOneThroughTheProxyOfTheSettings) {
  test::HttpServer proxy([](const test::HttpRequest&) { return HttpResponse{.status = 403}; });
  test::WriteFile(path::kPkgSetting, "proxy=" + proxy.Url("") + "\n");
  EXPECT_THAT(FailureOf([] { DiscoverProvider("https://host.invalid"); }),
              StartsWith("the request to the provider failed: "));
  std::filesystem::remove(path::kPkgSetting);
  ASSERT_THAT(proxy.Requests(), SizeIs(1));
  EXPECT_EQ(proxy.Requests()[0].method + " " + proxy.Requests()[0].target, "CONNECT host.invalid:443");
}

TEST_F(ProviderTest, FetchKeysGivesThemAsSent) {
  provider_.keys_answer = [] { return HttpResponse{.body = "anything"}; };
  EXPECT_EQ(FetchKeys(provider_.issuer() + "/keys"), "anything");
}

TEST_F(ProviderTest, FetchKeysReportsAFailure) {
  provider_.keys_answer = [] { return HttpResponse{.status = 404}; };
  EXPECT_EQ(FailureOf([&] { FetchKeys(provider_.issuer() + "/keys"); }),
            "the provider answered 404 when asked for its keys");
  provider_.keys_answer = [] { return HttpResponse{.body = "{}", .stall_at = 0}; };
  EXPECT_THAT(FailureOf([&] { FetchKeys(provider_.issuer() + "/keys", {.whole = std::chrono::milliseconds(200)}); }),
              StartsWith("the request to the provider failed: "));
}

TEST(ClockFaultTest, TellsADifferenceThatMatters) {
  EXPECT_EQ(ClockFault(10'000, 6'400), "this machine's clock is 60 minutes ahead of the provider's");
  EXPECT_EQ(ClockFault(6'400, 10'000), "this machine's clock is 60 minutes behind the provider's");
  EXPECT_EQ(ClockFault(10'000, 9'700), "this machine's clock is 5 minutes ahead of the provider's");
}

TEST(ClockFaultTest, SaysNothingOfASmallOrUnknownDifference) {
  EXPECT_EQ(ClockFault(10'000, 9'701), "");
  EXPECT_EQ(ClockFault(10'000, 10'299), "");
  EXPECT_EQ(ClockFault(10'000, std::nullopt), "");
}

}  // namespace
}  // namespace orbamira
