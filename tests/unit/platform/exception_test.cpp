#include "platform/exception.h"

#include <gmock/gmock.h>

#include <string>
#include <type_traits>

namespace orbamira::exception {
namespace {

TEST(BaseExceptionTest, KeepsMessagePlaceAndCode) {
  const BaseException exception("no space", "pack_handler.cpp", 42, 7);
  EXPECT_STREQ(exception.what(), "no space");
  EXPECT_EQ(exception.file(), "pack_handler.cpp");
  EXPECT_EQ(exception.line(), 42);
  EXPECT_EQ(exception.code(), 7);
}

TEST(BaseExceptionTest, HasCodeZeroWhereNoneIsGiven) { EXPECT_EQ(BaseException("m", "f", 1).code(), 0); }

TEST(BaseExceptionTest, TakesAStringAsWell) {
  std::string message = "first";
  const BaseException exception(message, "f", 1);
  message = "second";
  EXPECT_STREQ(exception.what(), "first");
}

TEST(BaseExceptionTest, ACopyOutlivesTheOriginal) {
  auto* original = new BaseException(std::string(100, 'x'), "file.cpp", 3, 4);
  const BaseException copy = *original;
  delete original;
  EXPECT_EQ(std::string(copy.what()), std::string(100, 'x'));
  EXPECT_EQ(copy.file(), "file.cpp");
}

TEST(ExceptionTest, EachCategoryIsCaughtByItsOwnType) {
  const auto throw_download = [] { throw Exception<kDownloadFailure>("refused", "f", 1); };
  static_assert(!std::is_base_of_v<Exception<kInstallFailure>, Exception<kDownloadFailure>>);
  EXPECT_THROW(throw_download(), Exception<kDownloadFailure>);
  EXPECT_THROW(throw_download(), BaseException);
  EXPECT_THROW(throw_download(), std::exception);
}

TEST(ExceptionTest, TheCategoriesHaveTheirNumbers) {
  EXPECT_EQ(kInstallFailure, 3);
  EXPECT_EQ(kDownloadFailure, 4);
}

}  // namespace
}  // namespace orbamira::exception
