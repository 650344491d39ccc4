#include "tools/packctl/view/json_line.h"

#include <json/writer.h>

namespace orbamira::packctl {

std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

}  // namespace orbamira::packctl
