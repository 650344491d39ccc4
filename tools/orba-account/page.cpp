#include "tools/orba-account/page.h"

#include <string_view>

#include "platform/account/secrets.h"

namespace orbamira::packctl {
namespace {

constexpr std::string_view kStyle =
    ":root{color-scheme:light dark}"
    "body{font:1.125rem/1.5 system-ui,sans-serif;max-width:36rem;margin:15vh auto;padding:0 1.5rem}"
    "h1{font-size:1.5rem;margin:0 0 .5rem}p{margin:0;overflow-wrap:anywhere}";

std::string Escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

}  // namespace

std::string MakePage(const std::string& title, const std::string& text) {
  return "<!doctype html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width\">\n<title>" +
         Escaped(title) + "</title>\n<style>" + std::string(kStyle) + "</style>\n<main>\n<h1>" + Escaped(title) +
         "</h1>\n<p>" + Escaped(text) + "</p>\n</main>\n</html>\n";
}

std::string PagePolicy() {
  return "default-src 'none'; style-src 'sha256-" + ToBase64(Digest(std::string(kStyle), "SHA256")) +
         "'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
}

}  // namespace orbamira::packctl
