#include "tests/fuzz/flow/server.h"

#include <cpr/cpr.h>
#include <curl/curl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "platform/http/http_transfer.h"
#include "tests/fuzz/fuzzing.h"

namespace orbamira::fuzz::flow {
namespace {

Server* current = nullptr;
cpr::WriteCallback take_reply;
std::string link;
std::string range;

constexpr std::size_t kPiece = 1000;

}  // namespace

Server::Server(std::string reply, BodyOf body_of, const std::string& script, Strikes& strikes)
    : reply_(std::move(reply)), body_of_(std::move(body_of)), script_(script), strikes_(strikes) {
  current = this;
}

Server::~Server() { current = nullptr; }

Server& Server::Current() {
  Require(current != nullptr, "there is a server");
  return *current;
}

Server::Answer Server::Reply() {
  Answer answer{.body = reply_};
  switch (script_.Next() % 16) {
    case 1:
      answer = {.status = 0, .failed = true};
      break;
    case 2:
      answer.status = 404;
      break;
    case 3:
      answer.status = 503;
      break;
    case 4:
      answer.body.resize(answer.body.size() * script_.Next() / 256);
      break;
    default:
      break;
  }
  return answer;
}

const Server::Answer& Server::Body(const std::string& asked_link, const std::string& asked_range) {
  const std::string whole = body_of_(asked_link);
  const std::string prefix = "bytes=";
  const std::size_t wanted =
      asked_range.starts_with(prefix) ? std::strtoul(asked_range.c_str() + prefix.size(), nullptr, 10) : 0;
  const uint8_t how = script_.Next();
  const std::size_t first = std::min(wanted, whole.size());
  last_ = {.body = whole, .tag = (how & 0x40) != 0 ? "" : "\"tag\""};
  if (!asked_range.empty() && (how & 0x20) == 0) {  // else it does not know of parts
    const bool is_right = (how & 0x10) == 0;
    last_.status = 206;
    last_.body = whole.substr(first);
    last_.range = "bytes " + std::to_string(is_right ? first : first + 1) + "-" + std::to_string(whole.size() - 1) +
                  "/" + std::to_string(whole.size());
  }
  last_.length = (how & 0x80) == 0 ? static_cast<long long>(last_.body.size()) : -1;
  switch (how & 0x0f) {
    case 1:
    case 2:
    case 3:  // it breaks off
      last_.failed = true;
      last_.body.resize(last_.body.size() * script_.Next() / 256);
      break;
    case 4:
      last_ = {.status = 0, .failed = true};
      break;
    case 5:
      last_ = {.status = 404, .body = "no such file"};
      break;
    case 6:
      last_ = {.status = 500, .body = "later"};
      break;
    case 7:
      last_ = {.status = 416, .range = "bytes */" + std::to_string(wanted)};
      break;
    case 8:
      last_.body += "more";
      break;
    case 9:  // less than it states, and no error
      last_.body.resize(last_.body.size() / 2);
      break;
    default:
      break;
  }
  return last_;
}

}  // namespace orbamira::fuzz::flow

// In place of what libcurl and cpr would do.
namespace {

using orbamira::fuzz::flow::Server;

cpr::Error ErrorOf(const Server::Answer& answer) {
  cpr::Error error;
  if (answer.failed) {
    error = cpr::Error(CURLE_RECV_ERROR, "broke off");
  }
  return error;
}

}  // namespace

void cpr::Session::SetUrl(const Url& url) { orbamira::fuzz::flow::link = url.str(); }

void cpr::Session::SetHeader(const Header& header) {
  const auto found = header.find("Range");
  orbamira::fuzz::flow::range = found == header.end() ? "" : found->second;
}

void cpr::Session::SetWriteCallback(const WriteCallback& write) { orbamira::fuzz::flow::take_reply = write; }

cpr::Response cpr::Session::Get() {
  const Server::Answer answer = Server::Current().Reply();
  cpr::Response response;
  response.status_code = answer.status;
  response.error = ErrorOf(answer);
  if (!orbamira::fuzz::flow::take_reply(answer.body)) {
    response.error = cpr::Error(CURLE_WRITE_ERROR, "too long");
  }
  return response;
}

namespace orbamira {

void SetUpForDownloads(cpr::Session& /*session*/, const NetworkSettings& /*settings*/) {}

cpr::Response Fetch(cpr::Session& /*session*/, const TransferLimits& /*limits*/, const BodyCallback& take) {
  Server& server = Server::Current();
  const Server::Answer& answer = server.Body(fuzz::flow::link, fuzz::flow::range);
  cpr::Response response;
  response.status_code = answer.status;
  response.error = ErrorOf(answer);
  std::string_view rest = answer.body;
  while (!rest.empty()) {
    bool goes_on = true;
    server.strikes().Own([&] { goes_on = take(rest.substr(0, fuzz::flow::kPiece)); });
    if (!goes_on) {
      response.error = cpr::Error(CURLE_WRITE_ERROR, "ended");
      break;
    }
    rest.remove_prefix(std::min(rest.size(), fuzz::flow::kPiece));
  }
  return response;
}

}  // namespace orbamira

#undef curl_easy_getinfo

extern "C" {

CURLcode curl_easy_getinfo(CURL* /*curl*/, CURLINFO info, ...) {
  va_list arguments;
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wvarargs"  // the declaration is libcurl's
  va_start(arguments, info);
#pragma clang diagnostic pop
  const Server::Answer& answer = Server::Current().last();
  CURLcode result = CURLE_OK;
  if (info == CURLINFO_RESPONSE_CODE) {
    *va_arg(arguments, long*) = answer.status;
  } else if (info == CURLINFO_CONTENT_LENGTH_DOWNLOAD_T) {
    *va_arg(arguments, curl_off_t*) = answer.length;
  } else {
    result = CURLE_BAD_FUNCTION_ARGUMENT;
  }
  va_end(arguments);
  return result;
}

CURLHcode curl_easy_header(CURL* /*curl*/, const char* name, std::size_t /*index*/, unsigned /*origin*/,
                           int /*request*/, curl_header** found) {
  static std::string value;
  static curl_header header = {};
  const Server::Answer& answer = Server::Current().last();
  value = std::strcmp(name, "ETag") == 0            ? answer.tag
          : std::strcmp(name, "Content-Range") == 0 ? answer.range
                                                    : std::string();
  header.value = value.data();
  *found = &header;
  return value.empty() ? CURLHE_MISSING : CURLHE_OK;
}

// A download waits before it tries again.
int nanosleep(const timespec* /*time*/, timespec* /*left*/) { return 0; }

}  // extern "C"
