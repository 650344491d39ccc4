#pragma once

#include <json/value.h>
#include <json/writer.h>

#include <string>

// Not installed; all in the header.
namespace orbamira {

/// The value as JSON on one line, with the end of the line.
inline std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

}  // namespace orbamira
