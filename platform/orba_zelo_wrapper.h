#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// Account services: what the appliance knows of its owner. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IOrbaZeloWrapper {
 public:
  virtual ~IOrbaZeloWrapper() = default;

  /// The appliance's time zone name, as "Europe/Vienna"; empty when unknown.
  virtual std::string GetTimezone() const = 0;

  /// The id of the account user registered on the appliance; empty when there is none or it cannot be read.
  virtual std::string GetUserId() const = 0;
};

/// The account services of a Linux system: the zone that orbamira::path::kLocaltime points to, and the user of
/// orbamira::path::kAccountFile. Holds no state; may be used from several threads at once.
class ORBAMIRA_EXPORT OrbaZeloWrapper : public IOrbaZeloWrapper {
 public:
  std::string GetTimezone() const override;
  std::string GetUserId() const override;
};

}  // namespace orbamira::wrapper
