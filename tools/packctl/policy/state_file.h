#pragma once

#include <json/value.h>

#include <optional>
#include <string>

/// The small files in which packctl keeps what is to outlast a pack, beside the history. For the holder of the update
/// lock, who is the only one to write them.
namespace orbamira::packctl {

/// What a file holds.
struct StateText {
  bool exists = false;
  std::optional<Json::Value> object = {};  ///< empty when the file is missing or holds no JSON object
};

/// Reads the file.
StateText ReadStateFile(const std::string& file);

/// Writes the object, whole or not at all, and syncs it. Throws std::system_error.
void WriteStateFile(const std::string& file, const Json::Value& object);

/// Removes the file, and what an interrupted write may have left beside it. Throws std::system_error.
void RemoveStateFile(const std::string& file);

}  // namespace orbamira::packctl
