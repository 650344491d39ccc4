#include <arpa/inet.h>
#include <cpr/cpr.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <vector>

#include "platform/posix/unique_fd.h"
#include "tools/orba-account/error.h"
#include "tools/orba-account/listener.h"
#include "tools/orba-account/page.h"

namespace orbamira::packctl {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class AccountListenerTest : public testing::Test {
 protected:
  AccountListenerTest() { setenv("no_proxy", "127.0.0.1", 1); }

  static std::future<cpr::Response> Call(const AnswerListener& listener, const std::string& query) {
    return std::async(std::launch::async,
                      [address = listener.RedirectUri() + query] { return cpr::Get(cpr::Url(address)); });
  }

  static std::string HostOf(const AnswerListener& listener) {
    const std::string uri = listener.RedirectUri();
    const std::size_t begin = uri.find("//") + 2;
    return uri.substr(begin, uri.rfind('/') - begin);
  }

  static void Send(const UniqueFd& client, const std::string& text) {
    EXPECT_EQ(send(client.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }

  /// All that the listener answers; it is not asked to wait.
  static std::string Received(const UniqueFd& client) {
    return ReadUpTo(client.get(), std::size_t{64} * 1024).value_or("");
  }

  static UniqueFd Connect(const AnswerListener& listener) {
    const std::string uri = listener.RedirectUri();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(uri.substr(uri.rfind(':') + 1))));
    UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return client;
  }
};

TEST_F(AccountListenerTest, WaitGivesTheAnswerAndTheBrowserWaitsForTheEnd) {
  AnswerListener listener(0, "state");
  std::future<cpr::Response> page = Call(listener, "?code=a%20code+%2B&state=state&iss=https%3A%2F%2Fi");
  const auto answer = listener.Wait(seconds(30));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->code, "a code +");
  EXPECT_EQ(answer->error, "");
  EXPECT_EQ(answer->issuer, "https://i");
  EXPECT_EQ(page.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  listener.ShowEnd("");
  const cpr::Response response = page.get();
  EXPECT_EQ(response.status_code, 200);
  EXPECT_THAT(response.text, HasSubstr("You are signed in"));
}

TEST_F(AccountListenerTest, WaitGivesTheProvidersError) {
  AnswerListener listener(0, "state");
  std::future<cpr::Response> page = Call(listener, "?error=access_denied&error_description=no&state=state");
  const auto answer = listener.Wait(seconds(30));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->code, "");
  EXPECT_EQ(answer->error, "access_denied");
  EXPECT_EQ(answer->error_description, "no");
  listener.ShowEnd("the provider refused");
  const cpr::Response response = page.get();
  EXPECT_EQ(response.status_code, 400);
  EXPECT_THAT(response.text, AllOf(HasSubstr("You are not signed in"), HasSubstr("The provider refused.")));
}

TEST_F(AccountListenerTest, OnlyTheFirstAnswerCounts) {
  AnswerListener listener(0, "state");
  std::future<cpr::Response> first = Call(listener, "?code=1&state=state");
  ASSERT_TRUE(listener.Wait(seconds(30)));
  const UniqueFd second = Connect(listener);
  Send(second, "GET /callback?code=2&state=state HTTP/1.1\r\nHost: " + HostOf(listener) + "\r\n\r\n");
  const UniqueFd reload = Connect(listener);
  Send(reload, "GET /callback?code=1&state=state HTTP/1.1\r\nHost: " + HostOf(listener) + "\r\n\r\n");
  EXPECT_EQ(listener.Wait(seconds(0))->code, "1");
  listener.ShowEnd("");
  EXPECT_EQ(first.get().status_code, 200);
  EXPECT_THAT(Received(second), StartsWith("HTTP/1.1 409 "));
  EXPECT_THAT(Received(reload), StartsWith("HTTP/1.1 200 "));
}

TEST_F(AccountListenerTest, WaitEndsWithoutAnAnswer) {
  AnswerListener listener(0, "state");
  const UniqueFd wrong = Connect(listener);
  Send(wrong, "GET /callback?code=1&state=other HTTP/1.1\r\nHost: " + HostOf(listener) + "\r\n\r\n");
  EXPECT_FALSE(listener.Wait(seconds(1)));
  EXPECT_THAT(Received(wrong), StartsWith("HTTP/1.1 400 "));
}

TEST_F(AccountListenerTest, ABrowserThatStillWaitsIsToldThatItIsOver) {
  std::future<cpr::Response> page;
  {
    AnswerListener listener(0, "state");
    page = Call(listener, "?code=1&state=state");
    ASSERT_TRUE(listener.Wait(seconds(30)));
  }
  EXPECT_EQ(page.get().status_code, 400);
}

TEST_F(AccountListenerTest, PortsAreNotShared) {
  const AnswerListener first(0, "state");
  const std::string uri = first.RedirectUri();
  EXPECT_THROW(AnswerListener(std::stoi(uri.substr(uri.rfind(':') + 1)), "state"), SignInError);
}

TEST_F(AccountListenerTest, ListensOnTheLoopbackAlone) {
  const AnswerListener listener(0, "state");
  const UniqueFd client = Connect(listener);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ASSERT_EQ(getpeername(client.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  sockaddr_in elsewhere{};
  elsewhere.sin_family = AF_INET;
  elsewhere.sin_addr.s_addr = htonl(0x7f000002);  // 127.0.0.2, which a socket bound to every address would take
  elsewhere.sin_port = address.sin_port;
  const UniqueFd other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_NE(connect(other.get(), reinterpret_cast<const sockaddr*>(&elsewhere), sizeof elsewhere), 0);
}

// A client that opens connections and says nothing, or never comes to the end of its request, holds up neither the
// right answer nor the end.
TEST_F(AccountListenerTest, SilentClientsHoldUpNothing) {
  std::vector<UniqueFd> silent;
  const auto begin = steady_clock::now();
  {
    AnswerListener listener(0, "state");
    for (std::size_t i = 0; i < 40; ++i) {
      silent.push_back(Connect(listener));
      EXPECT_GT(send(silent.back().get(), "GET / HT", i % 9, MSG_NOSIGNAL), -1);
    }
    std::future<cpr::Response> page = Call(listener, "?code=1&state=state");
    ASSERT_TRUE(listener.Wait(seconds(30)));
    listener.ShowEnd("");
    EXPECT_EQ(page.get().status_code, 200);
  }
  EXPECT_LT(steady_clock::now() - begin, seconds(10));
}

// It sends a byte now and then, so that no single wait is long.
TEST_F(AccountListenerTest, ASlowClientHoldsUpTheEndOnlySoLong) {
  std::future<void> dripping;
  std::promise<void> stop;
  const auto begin = steady_clock::now();
  {
    const AnswerListener listener(0, "state");
    dripping = std::async(std::launch::async, [client = Connect(listener), stopped = stop.get_future()] {
      while (stopped.wait_for(std::chrono::milliseconds(200)) == std::future_status::timeout &&
             send(client.get(), "G", 1, MSG_NOSIGNAL) == 1) {
      }
    });
  }
  EXPECT_LT(steady_clock::now() - begin, seconds(10));
  stop.set_value();
  dripping.get();
}

TEST(AccountPageTest, PutsTextsInAsTexts) {
  const std::string page = MakePage("<b>&\"'", "</p><script>alert(1)</script>");
  EXPECT_THAT(page,
              AllOf(HasSubstr("<h1>&lt;b&gt;&amp;&quot;&#39;</h1>"),
                    HasSubstr("<p>&lt;/p&gt;&lt;script&gt;alert(1)&lt;/script&gt;</p>"), Not(HasSubstr("<script"))));
}

}  // namespace
}  // namespace orbamira::packctl
