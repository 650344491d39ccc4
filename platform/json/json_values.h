#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

/// How the parts of an answer become JSON.
namespace orbamira {

/// The text; null where there is none.
inline Json::Value TextOrNull(const std::optional<std::string>& text) {
  return text ? Json::Value(*text) : Json::Value();
}

/// The text; null where it is empty.
inline Json::Value NullIfEmpty(const std::string& text) { return text.empty() ? Json::Value() : Json::Value(text); }

inline Json::Value ListOf(const std::vector<std::string>& texts) {
  Json::Value list = Json::arrayValue;
  for (const std::string& text : texts) {
    list.append(text);
  }
  return list;
}

}  // namespace orbamira
