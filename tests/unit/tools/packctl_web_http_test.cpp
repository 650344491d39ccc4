// The requests that "packctl web" understands.

#include <gmock/gmock.h>

#include "tools/http/message.h"

namespace orbamira::packctl {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// 0 while more must come, 200 for a request.
int StatusOf(const std::string& bytes) {
  const auto parsed = ParseRequest(bytes);
  if (!parsed) {
    return 0;
  }
  const auto* const reply = std::get_if<HttpReply>(&*parsed);
  return reply == nullptr ? 200 : reply->status;
}

TEST(ParseRequestTest, GivesTheRequestOnceItIsWhole) {
  const std::string bytes =
      "POST /api/check?a=b HTTP/1.1\r\nHost: here\r\nCONTENT-Length: 2\r\nEmpty:\r\nPadded: \t x y \t\r\n\r\n{}";
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_EQ(StatusOf(bytes.substr(0, size)), 0) << size;
  }
  const auto parsed = ParseRequest(bytes + "more");
  ASSERT_TRUE(parsed);
  const auto& request = std::get<HttpRequest>(*parsed);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/api/check");
  EXPECT_EQ(request.query, "a=b");
  EXPECT_EQ(request.body, "{}");
  EXPECT_EQ(request.Field("host"), "here");
  EXPECT_EQ(request.Field("empty"), "");
  EXPECT_EQ(request.Field("padded"), "x y");
  EXPECT_EQ(request.Field("none"), std::nullopt);
}

TEST(ParseRequestTest, KnowsTheTargetsParts) {
  const auto parts = [](const std::string& target) {
    const auto parsed = ParseRequest("GET " + target + " HTTP/1.0\r\n\r\n");
    const auto& request = std::get<HttpRequest>(*parsed);
    return request.path + " | " + request.query;
  };
  EXPECT_EQ(parts("/"), "/ | ");
  EXPECT_EQ(parts("/?"), "/ | ");
  EXPECT_EQ(parts("/a?b?c"), "/a | b?c");
}

TEST(HttpRequestTest, ParameterGivesTheOnlyValueDecoded) {
  HttpRequest request;
  request.query = "a=1%202+3%2b%C3%BC&b=&c&d=1&d=2&e=%4&f=%zz&g=%&h=%2&last=x=y";
  EXPECT_EQ(request.Parameter("a"), "1 2 3+\u00fc");
  EXPECT_EQ(request.Parameter("b"), "");
  EXPECT_EQ(request.Parameter("last"), "x=y");
  for (const char* name : {"", "c", "d", "e", "f", "g", "h", "none"}) {
    EXPECT_EQ(request.Parameter(name), std::nullopt) << name;
  }
}

TEST(ParseRequestTest, RefusesWhatItDoesNotUnderstand) {
  for (const char* line :
       {"GET", "GET /", "GET / HTTP/2", "GET / HTTP/1.1 more", "GET  HTTP/1.1", "GET a HTTP/1.1",
        "GET http://here/ HTTP/1.1", " / HTTP/1.1", "G\tT / HTTP/1.1", "GET /\x01 HTTP/1.1", "", "\x16\x03\x01"}) {
    EXPECT_EQ(StatusOf(std::string(line) + "\r\n\r\n"), 400) << line;
  }
  for (const char* field : {"Host", ": x", "Ho st: x", "Host : x", " Host: x", "A: b\r\n folded", "A: \x01", "A: b\rc",
                            "A: b\nHost: x", "A: 1\r\nA: 1", "Host: a\r\nHOST: b", "Content-Length: -1",
                            "Content-Length: 1x", "Content-Length: 99999999999999999999999x", "Content-Length:"}) {
    EXPECT_EQ(StatusOf(std::string("GET / HTTP/1.1\r\n") + field + "\r\n\r\n"), 400) << field;
  }
}

TEST(ParseRequestTest, RefusesABodyWithoutALength) {
  EXPECT_EQ(StatusOf("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"), 501);
}

TEST(ParseRequestTest, RefusesMoreThanItTakesBeforeItHasCome) {
  const std::string line = "GET / HTTP/1.1\r\nA: ";
  EXPECT_EQ(StatusOf(line + std::string(kMaxHeadSize - line.size(), 'x') + "\r\n\r\n"), 200);
  EXPECT_EQ(StatusOf(line + std::string(kMaxHeadSize - line.size() + 1, 'x') + "\r\n\r\n"), 431);
  EXPECT_EQ(StatusOf(std::string(kMaxHeadSize + 1, 'x')), 431);
  const auto with_length = [](std::size_t length) {
    return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
  };
  EXPECT_EQ(StatusOf(with_length(kMaxBodySize) + std::string(kMaxBodySize, 'x')), 200);
  EXPECT_EQ(StatusOf(with_length(kMaxBodySize + 1)), 413);
  EXPECT_EQ(StatusOf("POST / HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n"), 413);
}

TEST(ErrorReplyTest, HasTheReasonForProgramsAndForPeople) {
  const HttpReply reply = ErrorReply(409, "busy", "say \"no\"");
  EXPECT_EQ(reply.status, 409);
  EXPECT_EQ(reply.type, "application/json");
  EXPECT_EQ(*reply.body, "{\"error\":{\"code\":\"busy\",\"message\":\"say \\\"no\\\"\"}}\n");
}

TEST(HeadSectionTest, SaysWhatTheBodyIsAndWhatABrowserMustNotDo) {
  const HttpReply reply{.type = "text/css", .body = std::make_shared<const std::string>("abc")};
  const std::string head = HeadSection(reply);
  EXPECT_THAT(head,
              StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/css\r\nContent-Length: 3\r\nConnection: close\r\n"));
  for (const char* field :
       {"Cache-Control: no-store", "Content-Security-Policy: default-src 'none';", "frame-ancestors 'none'",
        "base-uri 'none'", "form-action 'none'", "Cross-Origin-Resource-Policy: same-origin",
        "Referrer-Policy: no-referrer", "X-Content-Type-Options: nosniff"}) {
    EXPECT_THAT(head, HasSubstr(field));
  }
  EXPECT_THAT(head, Not(HasSubstr("Access-Control")));
  EXPECT_THAT(head, EndsWith("\r\n\r\n"));
}

TEST(HeadSectionTest, HasAReasonForEachStatusThatIsGiven) {
  for (const int status : {200, 202, 400, 401, 403, 404, 405, 409, 413, 415, 421, 431, 501, 503}) {
    EXPECT_THAT(HeadSection(ErrorReply(status, "", "")), Not(HasSubstr("Internal"))) << status;
  }
  EXPECT_THAT(HeadSection(ErrorReply(500, "", "")), StartsWith("HTTP/1.1 500 Internal Server Error\r\n"));
  EXPECT_THAT(HeadSection(ErrorReply(401, "", "")), HasSubstr("\r\nWWW-Authenticate: Bearer\r\n"));
  HttpReply refusal = ErrorReply(405, "", "");
  refusal.allow = "POST";
  EXPECT_THAT(HeadSection(refusal), HasSubstr("\r\nAllow: POST\r\n"));
}

}  // namespace
}  // namespace orbamira::packctl
