#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "tools/packctl/policy/offer.h"

/// What is kept of an offer while it waits to be installed: the file offer.json beside the history.
namespace orbamira::packctl {

/// An offer, and since when it waits.
struct OfferNote {
  Offer offer = {};
  std::time_t first_seen = 0;  ///< when a check first found it, in seconds since the epoch
  std::string told = {};       ///< the code of the reason that the history tells of; empty before there is one
  std::optional<RefusedPackage> refusal = {};  ///< of its package

  friend bool operator==(const OfferNote&, const OfferNote&) = default;
};

/// The note of an offer that is seen now, where there was another note before. The same version goes on waiting since
/// it was first seen. One that was marked as a security release stays one, and so does a newer one that takes its
/// place, unless another program has installed that one or a newer: it closes the same hole, and must not begin to wait
/// anew. `installed` is the version of the installed pack, empty for none. A time that is in the future, or from before
/// this program was made, was told by a wrong clock and counts as now. A refusal counts for the same package alone.
OfferNote Noted(const Offer& offer, const std::optional<OfferNote>& before, std::time_t now,
                const std::string& installed);

/// The note; empty without one, and when it cannot be read.
std::optional<OfferNote> ReadOfferNote();

/// Keeps the note, whole and synced, where it differs from the one that is kept. Throws std::system_error.
void KeepOfferNote(const OfferNote& note);

/// Forgets the offer: it is installed, or on offer no more.
void ForgetOffer();

}  // namespace orbamira::packctl
