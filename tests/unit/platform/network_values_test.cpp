#include "platform/http/network_values.h"

#include <gtest/gtest.h>

namespace orbamira {
namespace {

TEST(IsProxyAddressTest, IsProxyAddressTakesWhatLibcurlTakes) {
  for (const char* const text :
       {"http://proxy.example.com:3128", "https://proxy:443", "socks5://10.0.0.1:1080", "socks5h://my_host-1:9050",
        "http://[::1]:8080", "http://[fe80::1]:1", "http://user@proxy:65535", "http://user:p%40ss:w$rd!@proxy:1/"}) {
    EXPECT_TRUE(IsProxyAddress(text)) << text;
  }
}

TEST(IsProxyAddressTest, IsProxyAddressRefusesEverythingElse) {
  for (const char* const text : {"",
                                 "proxy:3128",
                                 "http://",
                                 "http://:3128",
                                 "http://proxy",
                                 "http://proxy:",
                                 "http://proxy:0",
                                 "http://proxy:65536",
                                 "http://proxy:+1",
                                 "http://proxy:1 ",
                                 "http://pr oxy:1",
                                 "http://proxy:1/path",
                                 "http://proxy:1//",
                                 "http://a@b@proxy:1",
                                 "http://us/er@proxy:1",
                                 "http://us\ner@proxy:1",
                                 "http://[::1:1",
                                 "http://[]:1",
                                 "http://[proxy]:1",
                                 "http://::1:1",
                                 "http://pr%41xy:1",
                                 "HTTP://proxy:1",
                                 "ftp://proxy:1",
                                 "socks4://proxy:1",
                                 "http://pr\xC3\xB6xy:1"}) {
    EXPECT_FALSE(IsProxyAddress(text)) << text;
  }
}

TEST(ParseDownloadRateTest, ParseDownloadRateTakesWholeNumbersFrom1024On) {
  EXPECT_EQ(ParseDownloadRate("1024"), 1024);
  EXPECT_EQ(ParseDownloadRate("9223372036854775807"), INT64_MAX);
  for (const char* const text :
       {"", "0", "1023", "-1024", "+2048", " 2048", "2048 ", "2048k", "2e6", "0x800", "9223372036854775808"}) {
    EXPECT_FALSE(ParseDownloadRate(text)) << text;
  }
}

TEST(IsCaFileTest, IsCaFileTakesWholePaths) {
  EXPECT_TRUE(IsCaFile("/etc/ssl/ca.pem"));
  for (const char* const text : {"", "ca.pem", "./ca.pem", "/etc/ssl/"}) {
    EXPECT_FALSE(IsCaFile(text)) << text;
  }
}

}  // namespace
}  // namespace orbamira
