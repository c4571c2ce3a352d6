// Faults that are put into packets on purpose, one row each. Lengths and checksums that a row
// doesn't damage are right.

#pragma once

#include <span>

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/packet.h"
#include "tools/pelmogen/prng.h"

// Returns false, with nothing changed, when a packet doesn't have what would be damaged.
using DoDamage = bool (*)(PacketDraft& draft, Prng& prng);

struct Damage {
    const char* name;
    DoDamage toPayload;  // before packetSeal, or null
    DoDamage toFrame;    // after it, or null
};

[[nodiscard]] std::span<const Damage> damages();

// Chooses a row of the set that suits the filled packet and does its part before packetSeal. Null
// when none suits.
[[nodiscard]] const Damage* damagePayload(DamageSet set, PacketDraft& draft, Prng& prng);
