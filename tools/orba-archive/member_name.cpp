#include "tools/orba-archive/member_name.h"

#include <stdexcept>

namespace orbamira::tools {
namespace {

constexpr size_t kMaxName = 4096;
constexpr size_t kMaxParts = 128;

/// The parts between the slashes, without empty ones and ".".
std::vector<std::string_view> Split(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    const size_t length = std::min(path.find('/'), path.size());
    const std::string_view part = path.substr(0, length);
    if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    path.remove_prefix(std::min(length + 1, path.size()));
  }
  return parts;
}

}  // namespace

std::vector<std::string_view> SplitMemberName(std::string_view name) {
  if (name.empty() || name.front() == '/') {
    throw std::runtime_error("not a relative name");
  }
  if (name.size() > kMaxName) {
    throw std::runtime_error("a name of more than " + std::to_string(kMaxName) + " bytes");
  }
  std::vector<std::string_view> parts = Split(name);
  if (parts.size() > kMaxParts) {
    throw std::runtime_error("more than " + std::to_string(kMaxParts) + " folders deep");
  }
  for (const std::string_view part : parts) {
    if (part == "..") {
      throw std::runtime_error("a name with \"..\"");
    }
  }
  return parts;
}

void CheckSymlinkTarget(std::string_view target, size_t depth) {
  if (target.empty() || target.front() == '/') {
    throw std::runtime_error("an absolute symbolic link");
  }
  size_t climbed = 0;
  bool named = false;
  for (const std::string_view part : Split(target)) {
    if (part != "..") {
      named = true;
    } else if (named || ++climbed > depth) {
      throw std::runtime_error("a symbolic link that leads outside");
    }
  }
}

}  // namespace orbamira::tools
