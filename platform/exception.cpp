#include "platform/exception.h"

namespace orbamira::exception {

BaseException::BaseException(const char* message, const std::string& file, int line, int code)
    : message_(message), file_(file), line_(line), code_(code) {}

BaseException::BaseException(const std::string& message, const std::string& file, int line, int code)
    : message_(message), file_(file), line_(line), code_(code) {}

BaseException::~BaseException() = default;

const char* BaseException::what() const noexcept { return message_.c_str(); }

}  // namespace orbamira::exception
