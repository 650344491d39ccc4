#pragma once

#include <exception>
#include <string>

#include "platform/export.h"

/// The exceptions by which the platform's services and the updater report what a result cannot.
namespace orbamira::exception {

/// A message with the place that it was thrown from. Immutable once built; may be read from any thread.
class ORBAMIRA_EXPORT BaseException : public std::exception {
 public:
  /// `message` is what what() returns, `file` and `line` name the place of the throw, and `code` tells the failures of
  /// one category apart; 0 where nothing needs telling apart.
  BaseException(const char* message, const std::string& file, int line, int code = 0);
  /// As above.
  BaseException(const std::string& message, const std::string& file, int line, int code = 0);
  BaseException(const BaseException&) = default;
  BaseException& operator=(const BaseException&) = default;
  ~BaseException() override;

  /// The message.
  [[nodiscard]] const char* what() const noexcept override;
  /// The source file that it was thrown from.
  [[nodiscard]] const std::string& file() const noexcept { return file_; }
  /// The line in that file.
  [[nodiscard]] int line() const noexcept { return line_; }
  /// Which failure of its category it is; 0 where nothing needs telling apart.
  [[nodiscard]] int code() const noexcept { return code_; }

 private:
  std::string message_;
  std::string file_;
  int line_;
  int code_;
};

/// The category of a failure. The numbers are fixed.
enum ExceptionTag {
  kInstallFailure = 3,   ///< extraction or installation of a package
  kDownloadFailure = 4,  ///< the transport of a download
};

/// One type for each category, so that a handler catches the one that it can deal with and lets the others pass.
template <ExceptionTag Tag>
class ORBAMIRA_EXPORT Exception : public BaseException {
 public:
  using BaseException::BaseException;
};

}  // namespace orbamira::exception
