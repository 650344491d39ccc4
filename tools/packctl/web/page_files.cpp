#include "tools/packctl/web/page_files.h"

#include <fcntl.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <system_error>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPage = "page.html";

std::string ReadPageFile(const fs::path& path) {
  constexpr std::size_t kMaxSize = 256UL * 1024;
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.valid()) {
    ThrowErrno("cannot read the page " + path.string());
  }
  std::string text(kMaxSize, '\0');
  text.resize(ReadFully(file.get(), text.data(), text.size(), path));
  return text;
}

}  // namespace

PageFiles::PageFiles() {
  static const std::map<std::string, std::string> kTypes = {
      {".html", "text/html"}, {".css", "text/css"}, {".js", "text/javascript"}};
  const auto add = [this](const std::string& asked, const fs::path& path) {
    files_[asked] = {.type = kTypes.at(path.extension()) + "; charset=utf-8",
                     .body = std::make_shared<const std::string>(ReadPageFile(path))};
  };
  const fs::path folder = fs::path(path::kDefaultPkgSetting).parent_path() / "web";
  add("/", folder / kPage);
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const fs::path name = entry.path().filename();
    if (name != kPage && kTypes.contains(name.extension())) {
      add((fs::path("/") / name).string(), entry.path());
    }
  }
}

const HttpReply* PageFiles::Find(const HttpRequest& request) const {
  std::istringstream languages(request.path == "/words.js" ? request.Field("accept-language").value_or("") : "");
  // "de-CH,de;q=0.9,en;q=0.8": a browser begins with the one that its user likes best.
  for (std::string language; std::getline(languages >> std::ws, language, ',');) {
    const std::string name = LowerCase(language.substr(0, language.find_first_of("-;")));
    if (const auto words = files_.find("/words." + name + ".js"); words != files_.end()) {
      return &words->second;
    }
    if (name == "en") {
      break;
    }
  }
  const auto file = files_.find(request.path);
  return file == files_.end() ? nullptr : &file->second;
}

}  // namespace orbamira::packctl
