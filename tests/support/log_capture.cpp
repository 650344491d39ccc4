#include "tests/support/log_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <string_view>

namespace orbamira::test {
namespace {

struct Log {
  std::mutex mutex;
  std::vector<LogLine> lines;
};

Log& TheLog() {
  static Log log;
  return log;
}

std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
  text.pop_back();
  return text;
}

void Record(int priority, const std::string& message) {
  constexpr std::string_view kDigits = "0123456789";
  constexpr std::string_view kFileName = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.";
  LogLine line{priority, "", message};
  const std::size_t colon = std::min(message.find_first_not_of(kFileName), message.size());
  const std::size_t blank = std::min(message.find_first_not_of(kDigits, colon + 1), message.size());
  if (colon > 0 && blank > colon + 1 && message[colon] == ':' && message[blank] == ' ') {
    line.file = message.substr(0, colon);
    line.text = message.substr(blank + 1);
  }
  const std::lock_guard lock(TheLog().mutex);
  TheLog().lines.push_back(line);
}

}  // namespace

std::vector<LogLine> LogCapture::Lines() {
  const std::lock_guard lock(TheLog().mutex);
  return TheLog().lines;
}

void LogCapture::Clear() {
  const std::lock_guard lock(TheLog().mutex);
  TheLog().lines.clear();
}

void PrintTo(const LogLine& line, std::ostream* out) {
  *out << "[" << line.priority << "] " << line.file << ": " << line.text;
}

LogLine ErrorLine(const std::string& file, const std::string& text) { return {LOG_LOCAL1 | LOG_ERR, file, text}; }

LogLine InfoLine(const std::string& file, const std::string& text) { return {LOG_LOCAL1 | LOG_INFO, file, text}; }

}  // namespace orbamira::test

extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  orbamira::test::Record(priority, orbamira::test::Format(format, arguments));
  va_end(arguments);
}

// What a build with _FORTIFY_SOURCE calls in place of syslog.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  orbamira::test::Record(priority, orbamira::test::Format(format, arguments));
  va_end(arguments);
}

}  // extern "C"
