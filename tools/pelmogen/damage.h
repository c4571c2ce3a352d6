// Faults, done to packets on purpose: one row each. Lengths and checksums that a row doesn't mean
// to spoil are right.

#pragma once

#include <span>

#include "tools/pelmogen/options.h"
#include "tools/pelmogen/packet.h"
#include "tools/pelmogen/prng.h"

// Answers false, with nothing done, where a packet doesn't have what would be spoilt.
using DoDamage = bool (*)(PacketDraft& draft, Prng& prng);

struct Damage {
    const char* name;
    DoDamage toPayload;  // ahead of packetSeal, or null
    DoDamage toFrame;    // behind it, or null
};

[[nodiscard]] std::span<const Damage> damages();

// Chooses one of a set that suits the filled packet and does what comes ahead of packetSeal. Null
// where none suits.
[[nodiscard]] const Damage* damagePayload(DamageSet set, PacketDraft& draft, Prng& prng);
