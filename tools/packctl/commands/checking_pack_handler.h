#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "updater/pack_handler.h"

namespace orbamira::packctl {

/// The library's handler, which also remembers an offer that it turned down: a check that found nothing new and one
/// that failed both give false, and the user wants to know which it was.
class CheckingPackHandler : public updater::PackHandler {
 public:
  using PackHandler::CheckNewVersion;
  using PackHandler::PackHandler;

  bool CheckNewVersion(const Json::Value& info) const override;

  /// The version that the server offered and that is no newer than the installed one; empty when no offer arrived.
  [[nodiscard]] const std::optional<std::string>& declined_version() const { return declined_version_; }

 private:
  mutable std::optional<std::string> declined_version_;
};

}  // namespace orbamira::packctl
