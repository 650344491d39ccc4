// What an update server and a web server of packages can do wrong, each against the library and against packctl: the
// installed pack survives it, the log says what happened, and the next update succeeds.

#include <gmock/gmock.h>
#include <json/json.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tests/support/appliance.h"
#include "tests/support/error_text.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_root.h"
#include "updater/pack_manager.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

using std::chrono::milliseconds;
using test::Appliance;
using test::ErrorLine;
using test::HttpRequest;
using test::HttpResponse;
using test::InfoLine;
using test::LogCapture;
using test::LogLine;
using test::ProgramResult;
using test::RunningProgram;

using Log = std::vector<LogLine>;

// Stands in an expected text for what the transfer library says of a failure, which is its own business.
const std::string kAnyWords = "(any words)";

bool ReadsLike(std::string_view text, std::string_view expected) {
  const std::size_t words = expected.find(kAnyWords);
  if (words == std::string_view::npos) {
    return text == expected;
  }
  if (!text.starts_with(expected.substr(0, words))) {
    return false;
  }
  const std::string_view rest = expected.substr(words + kAnyWords.size());
  for (std::size_t end = words + 1; end <= text.size(); ++end) {
    if (ReadsLike(text.substr(end), rest)) {
      return true;
    }
  }
  return false;
}

MATCHER_P(ReadsLikeText, expected, "reads like " + testing::PrintToString(expected)) {
  return ReadsLike(arg, expected);
}

MATCHER(ReadsLikeLine, "") {
  const auto& [line, expected] = arg;
  return line.priority == expected.priority && line.file == expected.file && ReadsLike(line.text, expected.text);
}

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

struct Misbehaviour {
  std::string name;
  /// Why packctl says that the update failed; empty for an update that succeeds.
  std::string code = {};
  /// What becomes of the reply and of the package; `attempt` counts the requests for it in one update, from 1. Not
  /// called for the other of the two.
  std::function<void(HttpResponse&)> reply = {};
  std::function<void(const HttpRequest&, HttpResponse&, int attempt)> package = {};
  /// What the library logs; empty for an update that succeeds. `link` is where the package was published.
  std::function<Log(const std::string& link)> log = {};
  /// The update ends by an exception: the library leaves the recorded status as it was then.
  bool throws = false;
  /// It went as far as to download.
  bool downloads = false;
  /// It makes the download wait longer than a test should.
  bool slow = false;
  /// So many requests for the package it takes at least.
  int attempts = 0;
  std::string payload = "two";
};

void PrintTo(const Misbehaviour& misbehaviour, std::ostream* out) { *out << misbehaviour.name; }

LogLine ManagerError(const std::string& text) { return ErrorLine("pack_manager.cpp", text); }

// The log of each stage that an update can fail at.
auto CheckFails(const std::string& text) {
  return [text](const std::string&) { return Log{ManagerError(text), ManagerError("FetchDownloadInfo failed")}; };
}

auto DownloadFails(const std::string& text) {
  return [text](const std::string& link) {
    return Log{InfoLine("pack_handler.cpp", "Failed to download pack: " + link + ": " + text),
               ManagerError("DoDownload failed")};
  };
}

Log LogOfStatus(const std::string& link, int status) {
  return {InfoLine("pack_handler.cpp", std::string("Failed to download pack to ") + path::kDownloadedOpkPath +
                                           " from link: " + link + ", status code: " + std::to_string(status)),
          ManagerError("DoDownload failed")};
}

auto DownloadEndsWith(int status) {
  return [status](const std::string& link) { return LogOfStatus(link, status); };
}

Log LogOfVerification(const std::string& /*link*/) {
  return {ManagerError("Failed to verify checksum of downloaded file.")};
}

// The words of the JSON library for what goes wrong in `action`.
auto Throws(const std::function<void()>& action) {
  std::string words;
  try {
    action();
  } catch (const Json::Exception& error) {
    words = error.what();
  }
  return [words](const std::string&) { return Log{ManagerError("Download and install failed: " + words)}; };
}

// What a reply may do.
auto Says(const std::string& body) {
  return [body](HttpResponse& response) { response.body = body; };
}

auto AnswersWith(int status) {
  return [status](HttpResponse& response) { response.status = status; };
}

auto Redirects(const std::string& target) {
  return [target](HttpResponse& response) {
    response = HttpResponse{.status = 301, .headers = {{"Location", target}}};
  };
}

auto OffersWith(const std::string& member, const Json::Value& value) {
  return [member, value](HttpResponse& response) {
    Json::Value reply;
    std::istringstream(response.body) >> reply;
    reply[kHevcPack][member] = value;
    response.body = reply.toStyledString();
  };
}

auto OffersInPlace(const Json::Value& value) {
  return [value](HttpResponse& response) {
    Json::Value reply;
    reply[kHevcPack] = value;
    response.body = reply.toStyledString();
  };
}

std::string DigestOf(const char* algorithm, const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  std::size_t length = 0;
  EXPECT_EQ(EVP_Q_digest(nullptr, algorithm, nullptr, text.data(), text.size(), digest.data(), &length), 1);
  std::string hex;
  for (std::size_t i = 0; i < length; ++i) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    hex += kDigits[digest[i] >> 4U];
    hex += kDigits[digest[i] & 15U];
  }
  return hex;
}

std::string PublishedReply() { return test::ReadFile(test::Root() / "srv/reply.json"); }

std::string PublishedLink() {
  Json::Value reply;
  std::istringstream(PublishedReply()) >> reply;
  return reply[kHevcPack][param::kLink].asString();
}

std::string PublishedPackage() { return test::ReadFile(test::Root() / "srv" / fs::path(PublishedLink()).filename()); }

void OffersWithoutSize(HttpResponse& response) { OffersWith("size", Json::nullValue)(response); }

void SendWithoutEnd(HttpResponse& response) {
  response.framing = HttpResponse::Framing::kUntilClose;
  response.endless = true;
}

// The same package by another of its digests.
auto OffersDigest(const char* algorithm) {
  return [algorithm](HttpResponse& response) {
    OffersWith(param::kChecksum, DigestOf(algorithm, PublishedPackage()))(response);
  };
}

// The same for every attempt.
auto Always(const std::function<void(HttpResponse&)>& change) {
  return [change](const HttpRequest&, HttpResponse& response, int) { change(response); };
}

std::vector<Misbehaviour> MisbehavioursOfTheReply() {
  const std::string deep = std::string(2000, '[') + std::string(2000, ']');
  const auto get = [](const Json::Value& value) { return [value] { static_cast<void>(value.get("link", "")); }; };
  const auto text = [](const Json::Value& value) { return [value] { static_cast<void>(value.asString()); }; };
  const auto parse = [](const std::string& json) {
    return [json] {
      Json::Value value;
      Json::Reader().parse(json, value);
    };
  };
  return {
      {.name = "ReplyNeverComes",
       .code = "server_unreachable",
       .reply = [](HttpResponse& response) { response.silent = true; },
       .log = CheckFails("Failed to send request with error: " + kAnyWords)},
      {.name = "ReplyIsResetBeforeItsHead",
       .code = "server_unreachable",
       .reply =
           [](HttpResponse& response) {
             response.silent = true;
             response.reset_at = 0;
           },
       .log = CheckFails("Failed to send request with error: " + kAnyWords)},
      {.name = "ReplyIsResetAfterItsHead",
       .code = "bad_reply",
       .reply = [](HttpResponse& response) { response.reset_at = 0; },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIsResetMidway",
       .code = "bad_reply",
       .reply = [](HttpResponse& response) { response.reset_at = 30; },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIsCut",
       .code = "bad_reply",
       .reply = [](HttpResponse& response) { response.close_at = 30; },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIsLongerThanItSays",
       .code = "bad_reply",
       .reply = [](HttpResponse& response) { response.claimed_length = 30; },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyTrickles",
       .reply =
           [](HttpResponse& response) {
             response.piece = 1;
             response.pause = milliseconds(1);
           }},
      {.name = "ReplyInChunks",
       .reply = [](HttpResponse& response) { response.framing = HttpResponse::Framing::kChunked; }},
      {.name = "ReplyWithoutLength",
       .reply = [](HttpResponse& response) { response.framing = HttpResponse::Framing::kUntilClose; }},
      {.name = "ReplyRedirectsForever",
       .code = "server_refused",
       .reply = Redirects("/reply.json"),
       .log = CheckFails("Failed to send request with status: 301")},
      {.name = "ReplyRedirectsToAFile",
       .code = "server_refused",
       .reply = Redirects("file:///etc/passwd"),
       .log = CheckFails("Failed to send request with status: 301")},
      {.name = "ReplyIs401",
       .code = "server_refused",
       .reply = AnswersWith(401),
       .log = CheckFails("Failed to send request with status: 401")},
      {.name = "ReplyIs404",
       .code = "server_refused",
       .reply = AnswersWith(404),
       .log = CheckFails("Failed to send request with status: 404")},
      {.name = "ReplyIs429",
       .code = "server_refused",
       .reply = AnswersWith(429),
       .log = CheckFails("Failed to send request with status: 429")},
      {.name = "ReplyIs500",
       .code = "server_refused",
       .reply = AnswersWith(500),
       .log = CheckFails("Failed to send request with status: 500")},
      {.name = "ReplyIs204",
       .code = "server_refused",
       .reply = AnswersWith(204),
       .log = CheckFails("Failed to send request with status: 204")},
      {.name = "ReplyIsGarbage",
       .code = "bad_reply",
       .reply = Says(test::PatternOf(100'000)),
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIsHtml",
       .code = "bad_reply",
       .reply = Says("<!DOCTYPE html><html><body>Please sign in</body></html>"),
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIsAHundredMegabytes",
       .code = "bad_reply",
       .reply =
           [](HttpResponse& response) {
             response.body = R"({")" ORBAMIRA_HEVC_PACK R"(": )" + std::string(100 * kMebibyte, '[');
           },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyNeverEnds",
       .code = "bad_reply",
       .reply =
           [](HttpResponse& response) {
             response = {.body = "{\"x\":", .framing = HttpResponse::Framing::kChunked, .endless = true};
           },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyNeverEndsThoughAnOfferBeginsIt",
       .code = "bad_reply",
       .reply =
           [](HttpResponse& response) {
             response.framing = HttpResponse::Framing::kUntilClose;
             response.endless = true;
           },
       .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIs404AndNeverEnds",
       .code = "server_refused",
       .reply =
           [](HttpResponse& response) {
             response.status = 404;
             response.framing = HttpResponse::Framing::kChunked;
             response.endless = true;
           },
       .log = CheckFails("Failed to send request with status: 404")},
      {.name = "ReplyIsEmpty", .code = "bad_reply", .reply = Says(""), .log = CheckFails("Failed to parse response")},
      {.name = "ReplyIsNull",
       .code = "no_pack_offered",
       .reply = Says("null"),
       .log = CheckFails("Get " ORBAMIRA_HEVC_PACK " info failed")},
      {.name = "ReplyIsAnEmptyObject",
       .code = "no_pack_offered",
       .reply = Says("{}"),
       .log = CheckFails("Get " ORBAMIRA_HEVC_PACK " info failed")},
      {.name = "ReplyIsAnArray",
       .code = "bad_reply",
       .reply = Says("[{}]"),
       .log = Throws(get(Json::Value(Json::arrayValue))),
       .throws = true},
      {.name = "ReplyIsAText",
       .code = "bad_reply",
       .reply = Says("\"pack\""),
       .log = Throws(get("pack")),
       .throws = true},
      {.name = "ReplyIsANumber", .code = "bad_reply", .reply = Says("7"), .log = Throws(get(7)), .throws = true},
      {.name = "ReplyIsTrue", .code = "bad_reply", .reply = Says("true"), .log = Throws(get(true)), .throws = true},
      {.name = "ReplyIsNestedTooDeep",
       .code = "bad_reply",
       .reply = Says(deep),
       .log = Throws(parse(deep)),
       .throws = true},
      {.name = "OfferIsNestedTooDeep",
       .code = "bad_reply",
       .reply = Says(R"({")" ORBAMIRA_HEVC_PACK R"(": )" + deep + "}"),
       .log = Throws(parse(deep)),
       .throws = true},
      {.name = "OfferIsNull",
       .code = "no_pack_offered",
       .reply = OffersInPlace(Json::nullValue),
       .log = CheckFails("Get " ORBAMIRA_HEVC_PACK " info failed")},
      {.name = "OfferIsAnArray",
       .code = "bad_reply",
       .reply = OffersInPlace(Json::arrayValue),
       .log = Throws(get(Json::Value(Json::arrayValue))),
       .throws = true},
      {.name = "OfferIsAText",
       .code = "bad_reply",
       .reply = OffersInPlace("2.0"),
       .log = Throws(get("2.0")),
       .throws = true},
      {.name = "OfferIsANumber", .code = "bad_reply", .reply = OffersInPlace(2), .log = Throws(get(2)), .throws = true},
      {.name = "OfferIsTwice",
       .code = "no_pack_offered",
       .reply =
           [](HttpResponse& response) {
             response.body.resize(response.body.rfind('}'));
             response.body += R"(, ")" ORBAMIRA_HEVC_PACK R"(": null})";
           },
       .log = CheckFails("Get " ORBAMIRA_HEVC_PACK " info failed")},
      {.name = "LinkIsAnArray",
       .code = "bad_reply",
       .reply = OffersWith(param::kLink, Json::arrayValue),
       .log = Throws(text(Json::arrayValue)),
       .throws = true},
      {.name = "LinkIsAnObject",
       .code = "bad_reply",
       .reply = OffersWith(param::kLink, Json::objectValue),
       .log = Throws(text(Json::objectValue)),
       .throws = true},
      {.name = "LinkIsEmpty",
       .code = "download_failed",
       .reply = OffersWith(param::kLink, ""),
       .log = [](const std::string&) { return DownloadFails(kAnyWords)(""); },
       .downloads = true},
      {.name = "LinkIsNull",
       .code = "download_failed",
       .reply = OffersWith(param::kLink, Json::nullValue),
       .log = [](const std::string&) { return DownloadFails(kAnyWords)(""); },
       .downloads = true},
      {.name = "LinkIsALocalFile",
       .code = "download_failed",
       .reply = OffersWith(param::kLink, "file:///etc/passwd"),
       .log = [](const std::string&) { return DownloadFails(kAnyWords)("file:///etc/passwd"); },
       .downloads = true},
      {.name = "LinkHasAnotherScheme",
       .code = "download_failed",
       .reply = OffersWith(param::kLink, "ftp://127.0.0.1/pack"),
       .log = [](const std::string&) { return DownloadFails(kAnyWords)("ftp://127.0.0.1/pack"); },
       .downloads = true},
      {.name = "LinkLooksLikeAFormat",
       .code = "download_failed",
       .reply = [](HttpResponse& response) { OffersWith(param::kLink, PublishedLink() + "%s%n%d")(response); },
       .log = [](const std::string& link) { return LogOfStatus(link + "%s%n%d", 404); },
       .downloads = true},
      {.name = "ChecksumIsWrong",
       .code = "checksum_mismatch",
       .reply = OffersWith(param::kChecksum, std::string(64, '0')),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "ChecksumIsOfAnAlgorithmTooWeak",
       .code = "checksum_mismatch",
       .reply = OffersDigest("SHA1"),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "ChecksumIsOfAStrongerAlgorithm", .reply = OffersDigest("SHA512")},
      {.name = "ChecksumIsInCapitals",
       .reply =
           [](HttpResponse& response) {
             std::string digest = DigestOf("SHA256", PublishedPackage());
             std::transform(digest.begin(), digest.end(), digest.begin(), [](char c) { return c >= 'a' ? c - 32 : c; });
             OffersWith(param::kChecksum, digest)(response);
           }},
      {.name = "ChecksumIsEmpty",
       .code = "checksum_mismatch",
       .reply = OffersWith(param::kChecksum, ""),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "ChecksumIsNull",
       .code = "checksum_mismatch",
       .reply = OffersWith(param::kChecksum, Json::nullValue),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "ChecksumIsAnArray",
       .code = "bad_reply",
       .reply = OffersWith(param::kChecksum, Json::arrayValue),
       .log = Throws(text(Json::arrayValue)),
       .throws = true,
       .downloads = true},
      {.name = "VersionIsAnArray",
       .code = "bad_reply",
       .reply = OffersWith(param::kVersion, Json::arrayValue),
       .log = Throws(text(Json::arrayValue)),
       .throws = true},
      {.name = "VersionIsANumber", .reply = OffersWith(param::kVersion, 2)},
  };
}

std::vector<Misbehaviour> MisbehavioursOfThePackage() {
  const auto cut_once = [](std::size_t at) {
    return [at](const HttpRequest&, HttpResponse& response, int attempt) {
      if (attempt == 1) {
        response.reset_at = at;
      }
    };
  };
  std::vector<Misbehaviour> all;
  for (const int status : {204, 206, 304, 401, 404, 429, 500, 503}) {
    all.push_back({.name = "PackageIs" + std::to_string(status),
                   .code = "download_failed",
                   .package = Always(AnswersWith(status)),
                   .log = DownloadEndsWith(status),
                   .downloads = true});
  }
  for (const std::size_t at : {std::size_t{0}, std::size_t{1}, std::size_t{4096}}) {
    all.push_back({.name = "PackageIsResetOnceAtByte" + std::to_string(at),
                   .package = cut_once(at),
                   .slow = true,
                   .attempts = 2});
  }
  const std::string gave_up = "resumed 5 times without progress";
  const std::vector<Misbehaviour> others = {
      {.name = "PackageNeverComes",
       .code = "download_failed",
       .package = Always([](HttpResponse& response) { response.silent = true; }),
       .log = DownloadFails(kAnyWords),
       .downloads = true},
      {.name = "PackageIsResetBeforeItsHead",
       .code = "download_failed",
       .package = Always([](HttpResponse& response) {
         response.silent = true;
         response.reset_at = 0;
       }),
       .log = DownloadFails(kAnyWords),
       .downloads = true},
      {.name = "PackageIsAlwaysResetAtOnce",
       .code = "download_failed",
       .package = Always([](HttpResponse& response) { response.reset_at = 0; }),
       .log = DownloadFails(kAnyWords + "; got 0 of 10240 bytes, " + gave_up),
       .downloads = true,
       .slow = true},
      {.name = "PackageIsAlwaysCutAfterAByte",
       .code = "download_failed",
       .package = Always([](HttpResponse& response) { response.close_at = 1; }),
       .log = DownloadFails(kAnyWords + "; got 6 of 10240 bytes, " + gave_up),
       .downloads = true,
       .slow = true},
      {.name = "PackageStallsForever",
       .code = "download_failed",
       .package = Always([](HttpResponse& response) { response.stall_at = 100; }),
       .log = DownloadFails("under 1 byte per second for 30000 ms; got 600 of 10240 bytes, " + gave_up),
       .downloads = true,
       .slow = true},
      {.name = "PackageStallsOnce",
       .package =
           [](const HttpRequest&, HttpResponse& response, int attempt) {
             if (attempt == 1) {
               response.stall_at = 4096;
             }
           },
       .slow = true},
      {.name = "PackageTrickles", .package = Always([](HttpResponse& response) {
                                    response.piece = 100;
                                    response.pause = milliseconds(1);
                                  })},
      {.name = "PackageInChunks",
       .package = Always([](HttpResponse& response) { response.framing = HttpResponse::Framing::kChunked; })},
      {.name = "PackageWithoutLength",
       .package = Always([](HttpResponse& response) { response.framing = HttpResponse::Framing::kUntilClose; })},
      {.name = "PackageIsCutWhereNobodyCanTell",
       .code = "checksum_mismatch",
       .package = Always([](HttpResponse& response) {
         response.framing = HttpResponse::Framing::kUntilClose;
         response.close_at = 4096;
       }),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "PackageIsLongerThanItSays",
       .code = "checksum_mismatch",
       .package = Always([](HttpResponse& response) { response.claimed_length = 4096; }),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "PackageIsLongerThanPublished",
       .code = "checksum_mismatch",
       .reply = OffersWithoutSize,
       .package = Always([](HttpResponse& response) { response.body += "more"; }),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "PackageIsShorterThanItSays",
       .code = "download_failed",
       .reply = OffersWithoutSize,
       .package = Always([](HttpResponse& response) {
         if (response.status == 200) {
           response.claimed_length = 20000;
         }
       }),
       .log = DownloadFails("the server answered 416 when asked for the rest; got 10240 of 20000 bytes, " + gave_up),
       .downloads = true,
       .slow = true},
      {.name = "PackageRestIsAnotherPart",
       .code = "download_failed",
       .package =
           [](const HttpRequest& request, HttpResponse& response, int) {
             if (request.Header("Range").empty()) {
               response.close_at = 100;
             } else {
               response.headers["Content-Range"] = "bytes 0-10139/10240";
             }
           },
       .log =
           DownloadFails("the server sent another part than the rest of the file; got 100 of 10240 bytes, " + gave_up),
       .downloads = true,
       .slow = true},
      {.name = "PackageRedirectsForever",
       .code = "download_failed",
       .package = Always([](HttpResponse& response) { Redirects(PublishedLink())(response); }),
       .log = DownloadFails(kAnyWords),
       .downloads = true},
      {.name = "PackageRedirectsToAFile",
       .code = "download_failed",
       .package = Always(Redirects("file:///etc/passwd")),
       .log = DownloadFails(kAnyWords),
       .downloads = true},
      {.name = "PackageIsHtml",
       .code = "checksum_mismatch",
       .package = Always(Says("<!DOCTYPE html><html><body>Please sign in</body></html>")),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "PackageIsEmpty",
       .code = "checksum_mismatch",
       .package = Always(Says("")),
       .log = LogOfVerification,
       .downloads = true},
      {.name = "PackageChangesBetweenAttempts",
       .code = "checksum_mismatch",
       .package =
           [](const HttpRequest& request, HttpResponse& response, int attempt) {
             if (attempt == 1) {
               response.close_at = 4096;
             } else {
               response = ServeFile(request, test::PatternOf(10240), "\"2\"");
             }
           },
       .log = LogOfVerification,
       .downloads = true,
       .slow = true},
      {.name = "PackageChangesBetweenAttemptsAndKeepsItsTag",
       .code = "checksum_mismatch",
       .package =
           [](const HttpRequest& request, HttpResponse& response, int attempt) {
             if (attempt == 1) {
               response.close_at = 4096;
             } else {
               response = ServeFile(request, test::PatternOf(10240), "\"1\"");
             }
           },
       .log = LogOfVerification,
       .downloads = true,
       .slow = true},
      {.name = "PackageComesInTwentyPieces",
       .package = Always([](HttpResponse& response) {
         if (response.body.size() > kMebibyte + 1) {
           response.close_at = kMebibyte + 1;
         }
       }),
       .slow = true,
       .attempts = 20,
       .payload = test::PatternOf(20 * kMebibyte)},
  };
  all.insert(all.end(), others.begin(), others.end());
  return all;
}

class MisbehavingServerTest : public testing::TestWithParam<Misbehaviour> {
 protected:
  MisbehavingServerTest() {
    appliance_.Publish("1.0", "one");
    EXPECT_TRUE(manager_->DownloadAndInstall());
  }

  // What packctl writes about a failed update: the log, what the recovery did, and how it ended.
  static std::string ErrorsOf(const Log& log, const Misbehaviour& misbehaviour) {
    std::string errors;
    const auto complain = [&errors](const std::string& text) { errors += "packctl: " + text + "\n"; };
    for (const LogLine& line : log) {
      complain(line.text);
    }
    if (misbehaviour.throws) {
      complain("Recovery: changed the recorded status from downloading_installing to download_install_failed");
    }
    if (misbehaviour.downloads) {
      complain(std::string("Recovery: removed the download ") + kDownloadFolder);
    }
    complain("the update failed; the recorded status is download_install_failed");
    return errors;
  }

  static ProgramResult PackctlUpdate(bool in_haste) {
    const std::vector<std::string> arguments = {"update", "--reinstall", "--verbose"};
    std::vector<std::string> command = Appliance::PackctlCommand(arguments);
    if (in_haste) {
      command.front() = ORBAMIRA_TEST_IMPATIENT_PACKCTL;
    }
    return RunningProgram(command).Wait();
  }

  // All but the sentence that tells a person what has failed.
  static std::string WithoutLastLine(std::string errors) {
    errors.resize(errors.rfind('\n', errors.size() - 2) + 1);
    return errors;
  }

  static std::string RecordedStatus() { return Appliance::StatusRecord()["status"]; }

  static void ExpectPack(const std::string& version, const std::string& payload) {
    EXPECT_TRUE(Appliance::InstalledPayload() == payload);  // too long to print
    EXPECT_EQ(KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath), version);
    std::vector<std::string> beside;
    for (const auto& entry : fs::directory_iterator(kTargetFolder)) {
      if (entry.path() != path::kPreviousPackFolderPath) {
        beside.push_back(entry.path().filename());
      }
    }
    EXPECT_THAT(beside, testing::ElementsAre(kPackFolderName));
  }

  void Misbehave(const Misbehaviour& misbehaviour) {
    attempts_ = 0;
    appliance_.SetFault([this, misbehaviour](const HttpRequest& request, HttpResponse& response) {
      if (request.target.starts_with("/reply.json")) {
        if (misbehaviour.reply) {
          misbehaviour.reply(response);
        }
      } else if (misbehaviour.package) {
        misbehaviour.package(request, response, ++attempts_);
      }
    });
    LogCapture::Clear();
  }

  void ExpectLibrarySurvives(const Misbehaviour& misbehaviour, const Log& log) {
    Misbehave(misbehaviour);
    EXPECT_EQ(manager_->DownloadAndInstall(), log.empty());
    EXPECT_THAT(LogCapture::Lines(), testing::Pointwise(ReadsLikeLine(), log));
    EXPECT_GE(attempts_, misbehaviour.attempts);
    if (log.empty()) {
      ExpectPack("2.0", misbehaviour.payload);
      EXPECT_EQ(RecordedStatus(), "up_to_date");
      return;
    }
    ExpectPack("1.0", "one");
    EXPECT_EQ(RecordedStatus(), misbehaviour.throws ? "downloading_installing" : "download_install_failed");
    EXPECT_EQ(Appliance::Packctl({"recover"}).status, 0);
    EXPECT_EQ(RecordedStatus(), "download_install_failed");
  }

  static std::string CodeOfLastFailure() {
    Json::Value history;
    std::istringstream(Appliance::Packctl({"history", "--json", "--limit", "1"}).output) >> history;
    return history["entries"][0]["error"]["code"].asString();
  }

  void ExpectPackctlSurvives(const Misbehaviour& misbehaviour, const Log& log) {
    Misbehave(misbehaviour);
    const ProgramResult result = PackctlUpdate(misbehaviour.slow);
    EXPECT_GE(attempts_, misbehaviour.attempts);
    if (log.empty()) {
      EXPECT_EQ(result.status, 0);
      EXPECT_EQ(result.errors, "");
      ExpectPack("2.0", misbehaviour.payload);
      EXPECT_EQ(RecordedStatus(), "up_to_date");
      return;
    }
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(WithoutLastLine(result.errors), ReadsLikeText(ErrorsOf(log, misbehaviour)));
    EXPECT_EQ(CodeOfLastFailure(), misbehaviour.code);
    ExpectPack("1.0", "one");
    EXPECT_EQ(RecordedStatus(), "download_install_failed");
    EXPECT_FALSE(fs::exists(kDownloadFolder));
  }

  void ExpectHealthyUpdate(const std::string& payload) {
    appliance_.SetFault({});
    const ProgramResult result = Appliance::Packctl({"update", "--reinstall"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    ExpectPack("2.0", payload);
    EXPECT_EQ(RecordedStatus(), "up_to_date");
  }

  Appliance appliance_;
  std::unique_ptr<IPackManager> manager_ = PackManager::Create();
  int attempts_ = 0;
};

TEST_P(MisbehavingServerTest, ThePackSurvivesAndTheNextUpdateSucceeds) {
  const Misbehaviour& misbehaviour = GetParam();
  appliance_.Publish("2.0", misbehaviour.payload);
  const Log log = misbehaviour.log ? misbehaviour.log(PublishedLink()) : Log{};
  ExpectLibrarySurvives(misbehaviour, log);
  ExpectPackctlSurvives(misbehaviour, log);
  ExpectHealthyUpdate(misbehaviour.payload);
}

std::string NameOf(const testing::TestParamInfo<Misbehaviour>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Reply, MisbehavingServerTest, testing::ValuesIn(MisbehavioursOfTheReply()), NameOf);
INSTANTIATE_TEST_SUITE_P(Package, MisbehavingServerTest, testing::ValuesIn(MisbehavioursOfThePackage()), NameOf);

// It would fill the disk, and with it the place where the failure is to be recorded.
TEST_F(MisbehavingServerTest, APackageWithoutEndGivesItsRoomBack) {
  appliance_.Publish("2.0", test::PatternOf(kMebibyte));
  const Misbehaviour endless{.name = "PackageNeverEnds",
                             .code = "download_failed",
                             .reply = OffersWithoutSize,
                             .package = Always(SendWithoutEnd),
                             .downloads = true};
  const Log log = DownloadFails("cannot write the file: " + test::ErrorText(EFBIG))(PublishedLink());
  {
    const test::FileSizeLimit full(3 * kMebibyte);
    ExpectPackctlSurvives(endless, log);
    Misbehave(endless);
    PackStatusHelper::Create()->SetAsNeedDownload("2.0");
    EXPECT_FALSE(manager_->Download());
    EXPECT_EQ(LogCapture::Lines(), log);
    EXPECT_EQ(RecordedStatus(), "download_failed");
    EXPECT_LT(fs::file_size(path::kDownloadedOpkPath), 10'000U);
    ASSERT_TRUE(manager_->CheckNewPack());
    const ProgramResult download = Appliance::Packctl({"download"});
    EXPECT_EQ(download.status, 1);
    EXPECT_THAT(download.errors,
                testing::StartsWith("packctl: Download of 2.0 failed: the package cannot be downloaded ("));
    EXPECT_FALSE(fs::exists(kDownloadFolder));
  }
  appliance_.SetFault({});
  ASSERT_TRUE(manager_->CheckNewPack());
  ExpectHealthyUpdate(test::PatternOf(kMebibyte));
}

TEST_F(MisbehavingServerTest, PackctlTakesNoMoreThanTheSizeInTheReply) {
  appliance_.Publish("2.0", "two");
  const Log log =
      DownloadFails("the file is over 10240 bytes, its size in the reply: " + test::ErrorText(EFBIG))(PublishedLink());
  ExpectPackctlSurvives({.name = "PackageNeverEnds",
                         .code = "download_failed",
                         .package = Always(SendWithoutEnd),
                         .log = {},
                         .downloads = true},
                        log);
  ExpectHealthyUpdate("two");
}

TEST_F(MisbehavingServerTest, ADownloadIsBoundedByTheSettings) {
  appliance_.Publish("2.0", "two");
  const std::string settings = test::ReadFile(path::kPkgSetting);
  test::WriteFile(path::kPkgSetting, settings + "download_limit=10239\n");
  const Misbehaviour endless{.name = "PackageNeverEnds",
                             .code = "download_failed",
                             .reply = OffersWithoutSize,
                             .package = Always(SendWithoutEnd),
                             .downloads = true};
  const Log log = DownloadFails("the file is over 10239 bytes, the download_limit of the settings: " +
                                test::ErrorText(EFBIG))(PublishedLink());
  ExpectLibrarySurvives(endless, log);
  ExpectPackctlSurvives(endless, log);
  test::WriteFile(path::kPkgSetting, settings + "download_limit=10240\n");
  ExpectHealthyUpdate("two");
}

// The state of the page, which every user of the machine can read, holds the history.
TEST_F(MisbehavingServerTest, NoSecretOfALinkIsShownLoggedOrKept) {
  const test::RefusingPort port;
  const std::string url = port.Url("/pack.opk");
  for (const std::string& link : {"http://user:PW@" + url.substr(7), "ftp://user:PW@" + url.substr(7),
                                  "http://user:PW@" + appliance_.server().Url("/missing").substr(7)}) {
    appliance_.SetFault([link](const HttpRequest& request, HttpResponse& response) {
      if (request.target.starts_with("/reply.json")) {
        OffersWith(param::kLink, link)(response);
      }
    });
    LogCapture::Clear();
    EXPECT_FALSE(manager_->DownloadAndInstall());
    for (const LogLine& line : LogCapture::Lines()) {
      EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("PW")));
    }
    const ProgramResult result = Appliance::Packctl({"update"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, testing::AllOf(testing::HasSubstr("127.0.0.1"), testing::Not(testing::HasSubstr("PW"))));
    EXPECT_THAT(Appliance::Packctl({"doctor"}).output, testing::Not(testing::HasSubstr("PW")));
    EXPECT_THAT(test::ReadFile(path::kHistoryFile), testing::Not(testing::HasSubstr("PW")));
  }
}

// A plugin cannot be given such a version, and a terminal must not show it.
TEST_F(MisbehavingServerTest, PackctlTakesAnOfferWithTextsOutOfBoundsForNone) {
  appliance_.Publish("2.0", "two");
  const std::string refusal = "the update server's reply offers no pack: its ";
  const std::string controls = " holds control characters or is no UTF-8";
  struct Offer {
    const char* member;
    std::string text;
    std::string problem;
  };
  for (const Offer& offer : {Offer{param::kVersion, std::string("2.0\0x", 5), "version" + controls},
                             Offer{param::kVersion, "2.0\u009b", "version" + controls},
                             Offer{param::kVersion, "2.0\u202e", "version" + controls},
                             Offer{param::kVersion, std::string(129, '2'), "version is over 128 bytes long"},
                             Offer{param::kLink, "http://127.0.0.1/\npackctl: forged", "link" + controls},
                             Offer{param::kLink, std::string(2049, 'x'), "link is over 2048 bytes long"}}) {
    appliance_.SetFault([&offer](const HttpRequest& request, HttpResponse& response) {
      if (request.target.starts_with("/reply.json")) {
        OffersWith(offer.member, offer.text)(response);
      }
    });
    const ProgramResult check = Appliance::Packctl({"check"});
    EXPECT_EQ(check.status, 1);
    EXPECT_EQ(check.errors, "packctl: Check failed: " + refusal + offer.problem +
                                ". 1.0 stays installed. Run: sudo packctl doctor\n");
    const ProgramResult update = Appliance::Packctl({"update"});
    EXPECT_EQ(update.status, 1);
    EXPECT_EQ(update.errors, "packctl: Update failed: " + refusal + offer.problem +
                                 ". 1.0 stays installed. Run: sudo packctl doctor\n");
    EXPECT_EQ(CodeOfLastFailure(), "bad_reply");
    ExpectPack("1.0", "one");
  }
  ExpectHealthyUpdate("two");
}

// A host of the library takes any version that can be kept.
TEST_F(MisbehavingServerTest, AVersionTooLongToBeKeptLeavesTheRecordAsItWas) {
  const auto record = Appliance::StatusRecord();
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) {
    response.body = R"({")" ORBAMIRA_HEVC_PACK R"(": {"version": "9)" + std::string(200'000, '\x01') + "\"}}";
  });
  LogCapture::Clear();
  EXPECT_FALSE(manager_->CheckNewPack());
  EXPECT_EQ(Appliance::StatusRecord(), record);
}

TEST_F(MisbehavingServerTest, ACheckThatFailsLeavesTheRecordAsItWas) {
  appliance_.Publish("2.0", "two");
  const auto record = Appliance::StatusRecord();
  for (const char* reply :
       {"", "null", "[]", "7", R"({")" ORBAMIRA_HEVC_PACK R"(": []})", R"({")" ORBAMIRA_HEVC_PACK R"(": {}})"}) {
    appliance_.SetFault([reply](const HttpRequest&, HttpResponse& response) { response.body = reply; });
    EXPECT_FALSE(manager_->CheckNewPack()) << reply;
    const ProgramResult check = Appliance::Packctl({"check"});
    EXPECT_EQ(check.status, 1) << reply;
    EXPECT_THAT(check.errors,
                testing::MatchesRegex(
                    "packctl: (Check failed: [^\n]*|The server offers no HEVC pack)\\. 1\\.0 stays installed\\. "
                    "Run: sudo packctl doctor\n"));
    EXPECT_EQ(Appliance::StatusRecord(), record) << reply;
  }
  ExpectHealthyUpdate("two");
}

// The library waits for a reply without a limit: its host decides when to give up.
TEST_F(MisbehavingServerTest, AReplyThatNeverComesCanBeGivenUp) {
  appliance_.Publish("2.0", "two");
  const auto record = Appliance::StatusRecord();
  std::promise<void> asked;
  appliance_.SetFault([&asked](const HttpRequest&, HttpResponse& response) {
    response.stall_at = 0;
    asked.set_value();
  });
  RunningProgram check(Appliance::PackctlCommand({"check"}));
  ASSERT_EQ(asked.get_future().wait_for(std::chrono::minutes(5)), std::future_status::ready);
  check.Signal(SIGTERM);
  const ProgramResult result = check.Wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.errors, "packctl: Cancelled. 1.0 stays installed.\n");
  EXPECT_EQ(Appliance::StatusRecord(), record);
  EXPECT_EQ(CodeOfLastFailure(), "cancelled");
  EXPECT_THAT(Appliance::Packctl({"status"}).output,
              testing::ContainsRegex("^Up to date\\.\n(.*\n)*Last check: [^,]+, cancelled\n"));
  appliance_.server().Release();
  ExpectHealthyUpdate("two");
}

// What is not the same server saying something else.
class AbsentServerTest : public MisbehavingServerTest {
 protected:
  AbsentServerTest() { appliance_.Publish("2.0", "two"); }

  const test::RefusingPort refusing_;
};

TEST_F(AbsentServerTest, AnUpdateServerThatRefusesIsNoHarm) {
  const std::string settings = test::ReadFile(path::kPkgSetting);
  test::WriteFile(path::kPkgSetting,
                  std::string(common::kPackUpdateServer) + "=" + refusing_.Url("/reply.json") + "\n");
  const Misbehaviour absent{.name = "UpdateServerRefuses", .code = "server_unreachable"};
  const Log log = CheckFails("Failed to send request with error: " + kAnyWords)("");
  ExpectLibrarySurvives(absent, log);
  ExpectPackctlSurvives(absent, log);
  test::WriteFile(path::kPkgSetting, settings);
  ExpectHealthyUpdate("two");
}

TEST_F(AbsentServerTest, AServerOfPackagesThatRefusesIsNoHarm) {
  const std::string link = refusing_.Url("/pack.opk");
  const Misbehaviour absent{.name = "PackageServerRefuses",
                            .code = "download_failed",
                            .reply = OffersWith(param::kLink, link),
                            .downloads = true};
  const Log log = DownloadFails(kAnyWords)(link);
  ExpectLibrarySurvives(absent, log);
  ExpectPackctlSurvives(absent, log);
  ExpectHealthyUpdate("two");
}

}  // namespace
}  // namespace orbamira::updater
