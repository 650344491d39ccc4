#pragma once

#include <gmock/gmock.h>
#include <syslog.h>

#include <string>
#include <vector>

namespace orbamira::test {

/// One message that the code under test sent to the system log.
struct LogLine {
  int priority = 0;  ///< facility and level, as LOG_LOCAL1 | LOG_ERR
  std::string file;  ///< the source file that the text begins with
  std::string text;  ///< what follows the "file:line " in front; the whole text when there is no such front

  friend bool operator==(const LogLine&, const LogLine&) = default;
};

/// The messages sent to the system log since the program's start or the last Clear, in order. Linking this file
/// replaces the system's syslog in the whole test program. Safe to use from several threads at once.
class LogCapture {
 public:
  static std::vector<LogLine> Lines();
  static void Clear();
};

/// How a failed comparison shows a line.
void PrintTo(const LogLine& line, std::ostream* out);

/// The line that `file` logs at error or info priority; the line number is not compared.
LogLine ErrorLine(const std::string& file, const std::string& text);
LogLine InfoLine(const std::string& file, const std::string& text);

}  // namespace orbamira::test
