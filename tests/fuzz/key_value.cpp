// The reader of settings files, against a second one written the plain way. The input's first line is the key, the rest
// the file.

#include <sstream>
#include <string>

#include "platform/orba_core_wrapper.h"
#include "tests/fuzz/fuzzing.h"
#include "tests/support/test_root.h"

namespace {

using orbamira::fuzz::Require;

bool IsBlank(char byte) { return byte == ' ' || byte == '\t'; }

std::string WithoutBlanks(std::string text) {
  while (!text.empty() && IsBlank(text.front())) {
    text.erase(text.begin());
  }
  while (!text.empty() && IsBlank(text.back())) {
    text.pop_back();
  }
  return text;
}

std::string Expected(const std::string& settings, const std::string& key) {
  std::istringstream lines(settings);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    std::istringstream parts(line);
    std::string name;
    std::getline(parts, name, '=');
    const bool has_equals = !parts.eof() || (line.size() > name.size());
    if (line[0] == '#' || !has_equals || WithoutBlanks(name) != key) {
      continue;
    }
    std::string value = WithoutBlanks(line.substr(name.size() + 1));
    if (value.size() > 1 && value.front() == '"' && value.back() == '"') {
      value.pop_back();
      value.erase(value.begin());
    }
    return value;
  }
  return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  std::string settings = orbamira::fuzz::Text(data, size);
  const std::string key = orbamira::fuzz::TakeLine(settings);
  const std::string file = orbamira::test::Root() / "settings.conf";
  orbamira::test::WriteFile(file, settings);

  const std::string value = orbamira::wrapper::OrbaCoreWrapper().GetKeyValue(file, key);
  Require(value.find('\n') == std::string::npos, "a value is within one line");
  Require(value == Expected(settings, key), "both readers find the same value");
  return 0;
}
