#pragma once

#include <filesystem>
#include <string>

namespace orbamira::test {

/// The root folder of this test process, which the path constants of the library stand under. Made before the test
/// began and removed after it ended, by test_main.
std::filesystem::path Root();

/// A fresh folder for the life of the object.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// Writes the whole file, its missing folders included; reads it whole, as an empty text when it is missing.
void WriteFile(const std::filesystem::path& file, const std::string& text);
std::string ReadFile(const std::filesystem::path& file);

}  // namespace orbamira::test
