#pragma once

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/printable.h"

// The library's lines in the system log. Not installed; all in the header, for every library and program.
namespace orbamira {

/// Logs the formatted text on one line. Control characters in it are escaped, so that a text from outside can neither
/// forge a second line nor control the terminal that shows the log.
// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks what fits the format
__attribute__((format(printf, 4, 5))) inline void LogLine(int priority, const char* file, int line, const char* format,
                                                          ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(size > 0 ? static_cast<std::size_t>(size) + 1 : 1, '\0');
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, again));
  va_end(again);
  text.pop_back();
  syslog(LOG_LOCAL1 | priority, "%s:%d %s", file, line, Printable(text).c_str());
}

}  // namespace orbamira

// Log a message with printf's format. The name of the source file and the line are put in front.
#define ORBAMIRA_LOG(priority, format, ...) \
  orbamira::LogLine(priority, __FILE_NAME__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__)
#define ORBAMIRA_LOG_ERROR(format, ...) ORBAMIRA_LOG(LOG_ERR, format __VA_OPT__(, ) __VA_ARGS__)
#define ORBAMIRA_LOG_INFO(format, ...) ORBAMIRA_LOG(LOG_INFO, format __VA_OPT__(, ) __VA_ARGS__)
