#pragma once

#include <json/json.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

// The one strict reader of JSON, for what is written by programs alone. Not installed; all in the header, because the
// platform's library exports nothing of it and others need it too.
namespace orbamira {

/// The JSON object that the text holds, and nothing else; empty for any other text. Why is not told: the parser's own
/// words may quote the text, which may hold a token.
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

/// The text that the value is; empty when it is none.
inline std::string TextOf(const Json::Value& value) { return value.isString() ? value.asString() : ""; }

}  // namespace orbamira
