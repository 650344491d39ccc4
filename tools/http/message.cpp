#include "tools/http/message.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "platform/json/json_line.h"

namespace orbamira::packctl {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";

// Takes what stands before `separator` off the text, and the separator; empty when there is none.
std::optional<std::string_view> TakeUntil(std::string_view& text, std::string_view separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view front = text.substr(0, at);
  text.remove_prefix(at + separator.size());
  return front;
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
  text.remove_prefix(begin);
  return text.substr(0, text.find_last_not_of(" \t") + 1);
}

bool IsToken(std::string_view text) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!#$%&'*+-.^_`|~";
  return !text.empty() && text.find_first_not_of(kLetters) == std::string_view::npos;
}

bool HasControls(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char letter) { return (letter < ' ' && letter != '\t') || letter == 0x7f; });
}

bool ReadRequestLine(std::string_view line, HttpRequest& request) {
  const auto method = TakeUntil(line, " ");
  const auto target = TakeUntil(line, " ");
  if (!method || !IsToken(*method) || !target || !target->starts_with('/') || HasControls(*target) ||
      (line != "HTTP/1.1" && line != "HTTP/1.0")) {
    return false;
  }
  request.method = *method;
  request.path = target->substr(0, target->find('?'));
  request.query = target->substr(std::min(request.path.size() + 1, target->size()));
  return true;
}

// A field that stands there twice is no field: which of the two counts would be a matter of who reads it.
bool ReadField(std::string_view line, HttpRequest& request) {
  const auto name = TakeUntil(line, ":");
  const std::string_view value = Trimmed(line);
  return name && IsToken(*name) && !HasControls(value) && request.fields.emplace(LowerCase(*name), value).second;
}

// The greatest number stands for those that are greater.
std::optional<std::size_t> Number(const std::string& text) {
  std::size_t number = std::numeric_limits<std::size_t>::max();
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  const bool is_number = result.ec == std::errc() || result.ec == std::errc::result_out_of_range;
  return is_number && result.ptr == end ? std::optional(number) : std::nullopt;
}

// A value as a form encodes it; empty when it does not.
std::optional<std::string> Decoded(std::string_view text) {
  std::string decoded;
  while (!text.empty()) {
    if (text.front() != '%') {
      decoded += text.front() == '+' ? ' ' : text.front();
      text.remove_prefix(1);
      continue;
    }
    unsigned char byte = 0;
    if (text.size() < 3 || std::from_chars(text.data() + 1, text.data() + 3, byte, 16).ptr != text.data() + 3) {
      return std::nullopt;
    }
    decoded += static_cast<char>(byte);
    text.remove_prefix(3);
  }
  return decoded;
}

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 202:
      return "Accepted";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 409:
      return "Conflict";
    case 413:
      return "Content Too Large";
    case 415:
      return "Unsupported Media Type";
    case 421:
      return "Misdirected Request";
    case 431:
      return "Request Header Fields Too Large";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    default:
      return "Internal Server Error";
  }
}

}  // namespace

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter;
  });
  return lower;
}

std::optional<std::string> HttpRequest::Field(const std::string& name) const {
  const auto field = fields.find(name);
  return field == fields.end() ? std::nullopt : std::optional(field->second);
}

std::optional<std::string> HttpRequest::Parameter(std::string_view name) const {
  std::optional<std::string> value;
  for (std::string_view rest = query; !rest.empty();) {
    std::string_view pair = rest.substr(0, rest.find('&'));
    rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
    if (TakeUntil(pair, "=") != name) {
      continue;
    }
    const bool is_first = !value;
    value = Decoded(pair);
    if (!value || !is_first) {
      return std::nullopt;
    }
  }
  return value;
}

HttpReply ErrorReply(int status, const std::string& code, const std::string& message) {
  Json::Value json;
  json["error"]["code"] = code;
  json["error"]["message"] = message;
  return {.status = status, .body = std::make_shared<const std::string>(JsonLine(json))};
}

std::optional<std::variant<HttpRequest, HttpReply>> ParseRequest(std::string_view bytes) {
  const std::size_t end = bytes.find(kHeadEnd);
  if (std::min(end, bytes.size()) > kMaxHeadSize) {
    return ErrorReply(431, "head_too_long", "the request's head is too long");
  }
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  HttpRequest request;
  std::string_view lines = bytes.substr(0, end + kLineEnd.size());
  bool understood = ReadRequestLine(*TakeUntil(lines, kLineEnd), request);
  while (understood && !lines.empty()) {
    understood = ReadField(*TakeUntil(lines, kLineEnd), request);
  }
  if (!understood) {
    return ErrorReply(400, "not_understood", "the request is not understood");
  }
  if (request.Field("transfer-encoding")) {
    return ErrorReply(501, "no_length", "a request's body is taken only with its length");
  }
  const auto length = Number(request.Field("content-length").value_or("0"));
  if (!length) {
    return ErrorReply(400, "not_understood", "the request is not understood");
  }
  if (*length > kMaxBodySize) {
    return ErrorReply(413, "body_too_long", "the request's body is too long");
  }
  request.body = bytes.substr(end + kHeadEnd.size(), *length);
  return request.body.size() == *length ? std::optional(request) : std::nullopt;
}

std::string HeadSection(const HttpReply& reply) {
  std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " " + Reason(reply.status) +
                     "\r\n"
                     "Content-Type: " +
                     reply.type +
                     "\r\n"
                     "Content-Length: " +
                     std::to_string(reply.body->size()) +
                     "\r\n"
                     "Connection: close\r\n"
                     "Cache-Control: no-store\r\n"
                     "Content-Security-Policy: " +
                     reply.policy +
                     "\r\n"
                     "Cross-Origin-Opener-Policy: same-origin\r\n"
                     "Cross-Origin-Resource-Policy: same-origin\r\n"
                     "Referrer-Policy: no-referrer\r\n"
                     "X-Content-Type-Options: nosniff\r\n";
  if (!reply.allow.empty()) {
    head += "Allow: " + reply.allow + "\r\n";
  }
  if (reply.status == 401) {
    head += "WWW-Authenticate: Bearer\r\n";
  }
  return head + "\r\n";
}

}  // namespace orbamira::packctl
