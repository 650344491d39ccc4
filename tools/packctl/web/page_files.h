#pragma once

#include <map>
#include <string>

#include "tools/http/message.h"

/// The page's files, which a maker may replace and add to.
namespace orbamira::packctl {

/// The files of the page as they are served.
class PageFiles {
 public:
  /// Reads each .html, .css and .js file of the folder, up to 256 KiB of it. Throws std::exception when one cannot be
  /// read, or page.html is missing.
  PageFiles();

  /// The file that is asked for under this path; null without one. For "/words.js" it is words.LANGUAGE.js of the
  /// first language that the browser prefers and there is a file for; none is needed for English.
  [[nodiscard]] const HttpReply* Find(const HttpRequest& request) const;

 private:
  std::map<std::string, HttpReply> files_;
};

}  // namespace orbamira::packctl
