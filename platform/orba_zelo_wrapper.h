#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// Account services: what the appliance knows about its owner. A test or another platform can stand in for them. The
/// order of the operations is a binary contract.
class ORBAMIRA_EXPORT IOrbaZeloWrapper {
 public:
  virtual ~IOrbaZeloWrapper() = default;

  /// The name of the appliance's time zone, for example "Europe/Vienna"; empty when it is not known.
  virtual std::string GetTimezone() const = 0;

  /// The id of the user who is signed in on the appliance; empty when nobody is or when the account cannot be read.
  virtual std::string GetUserId() const = 0;
};

/// The account services of a Linux system. The time zone is the one that orbamira::path::kLocaltime points to; the user
/// is the one in orbamira::path::kAccountFile. Every call looks again. An object holds no state, so it may be shared,
/// copied and used from several threads at once.
class ORBAMIRA_EXPORT OrbaZeloWrapper : public IOrbaZeloWrapper {
 public:
  std::string GetTimezone() const override;
  std::string GetUserId() const override;
};

}  // namespace orbamira::wrapper
