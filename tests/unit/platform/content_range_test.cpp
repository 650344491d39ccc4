#include "platform/http/content_range.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace orbamira {
namespace {

std::string TextOf(const std::optional<ContentRange>& range) {
  return !range ? "none"
                : std::to_string(range->first) + "-" + std::to_string(range->last) + "/" +
                      (range->size ? std::to_string(*range->size) : "unknown");
}

TEST(ContentRangeTest, ParseContentRangeReadsTheNumbers) {
  EXPECT_EQ(TextOf(ParseContentRange("bytes 0-0/1")), "0-0/1");
  EXPECT_EQ(TextOf(ParseContentRange("bytes 400-999/1000")), "400-999/1000");
  EXPECT_EQ(TextOf(ParseContentRange("bytes 400-999/*")), "400-999/unknown");
  EXPECT_EQ(TextOf(ParseContentRange("bytes 0-9223372036854775806/9223372036854775807")),
            "0-9223372036854775806/9223372036854775807");
}

TEST(ContentRangeTest, ParseContentRangeRefusesEverythingElse) {
  for (const char* text : {"",
                           "bytes",
                           "bytes ",
                           "bytes -",
                           "bytes 1",
                           "bytes 1-",
                           "bytes 1-2",
                           "bytes 1-2/",
                           "bytes 1-2/x",
                           "bytes 1-2/3x",
                           "bytes 1-2/*x",
                           "bytes 2-1/3",
                           "bytes 1-3/3",
                           "bytes -1-2/3",
                           "bytes 1--2/3",
                           "bytes 1-2/-3",
                           "bytes */3",
                           "octets 1-2/3",
                           " bytes 1-2/3",
                           "bytes 1 - 2/3",
                           "bytes 0-1/9223372036854775808",
                           "1-2/3"}) {
    EXPECT_EQ(TextOf(ParseContentRange(text)), "none") << text;
  }
}

}  // namespace
}  // namespace orbamira
