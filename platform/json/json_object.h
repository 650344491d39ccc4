#pragma once

#include <json/json.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Strict JSON, for texts that only programs write. Not installed; all in the header, because the platform's library
// does not export it and others need it too.
namespace orbamira {

/// The JSON object that is the whole text; empty for any other text. There is no reason with it: the parser's messages
/// quote the text, which may contain a token.
inline std::optional<Json::Value> ParseJsonObject(std::string_view text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isObject()) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {  // nested too deeply
    return std::nullopt;
  }
  return value;
}

/// The text in the value; empty when it is of another type.
inline std::string TextOf(const Json::Value& value) { return value.isString() ? value.asString() : ""; }

}  // namespace orbamira
