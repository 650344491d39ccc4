#pragma once

#include <exception>
#include <string>

#include "platform/export.h"

/// The exceptions that the platform's services and the updater throw where a result cannot tell what went wrong.
namespace orbamira::exception {

/// A message and the place in the source that threw it. It never changes once built, so any thread may read it.
class ORBAMIRA_EXPORT BaseException : public std::exception {
 public:
  /// `message` is what what() returns. `file` and `line` name the place of the throw. `code` tells failures of one
  /// category apart; it is 0 where there is only one.
  BaseException(const char* message, const std::string& file, int line, int code = 0);
  /// As above.
  BaseException(const std::string& message, const std::string& file, int line, int code = 0);
  BaseException(const BaseException&) = default;
  BaseException& operator=(const BaseException&) = default;
  ~BaseException() override;

  /// The message.
  [[nodiscard]] const char* what() const noexcept override;
  /// The source file of the throw.
  [[nodiscard]] const std::string& file() const noexcept { return file_; }
  /// The line in that file.
  [[nodiscard]] int line() const noexcept { return line_; }
  /// Which failure of its category this is; 0 where there is only one.
  [[nodiscard]] int code() const noexcept { return code_; }

 private:
  std::string message_;
  std::string file_;
  int line_;
  int code_;
};

/// The category of a failure. The numbers are part of the binary interface: never change or reuse one.
enum ExceptionTag {
  kInstallFailure = 3,   ///< extraction or installation of a package
  kDownloadFailure = 4,  ///< the transport of a download
};

/// One type for each category, so that a handler catches the failures that it can deal with and lets the others pass.
template <ExceptionTag Tag>
class ORBAMIRA_EXPORT Exception : public BaseException {
 public:
  using BaseException::BaseException;
};

}  // namespace orbamira::exception
