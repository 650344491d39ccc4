#include "tests/support/test_root.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace orbamira::test {

namespace fs = std::filesystem;

fs::path Root() {
  const char* root = std::getenv("ORBAMIRA_ROOT");
  if (root == nullptr) {
    throw std::logic_error("the test has no root folder: run it under CTest");
  }
  return root;
}

TempDir::TempDir() {
  std::string pattern = (Root() / "tmp-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + pattern);
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void WriteFile(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream << text;
  if (!stream.flush()) {
    throw std::runtime_error("cannot write " + file.string());
  }
}

std::string ReadFile(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return std::move(text).str();
}

}  // namespace orbamira::test
