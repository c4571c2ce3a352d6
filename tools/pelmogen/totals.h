// What a run handed to its sink, for whoever compares it with what was counted at the other end.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/pelmogen/traffic.h"

struct KindTotals {
    uint64_t packets, payloadBytes;  // payload of UDP, OSKA header included
};

struct SentTotals {
    std::array<KindTotals, kPacketKinds> kinds{};
    uint64_t messages = 0;  // that have a subject; one that runs on in the next packet counts once
    std::vector<bool> subjectSent;     // by number
    std::vector<bool> hostStatusSent;  // by host: each has a status subject of its own
    double seconds = 0;                // from the first packet until the sink was done
};

// One line a kind, "sent KIND PACKETS BYTES", then "sent messages N", "sent subjects N" and
// "sent seconds S".
[[nodiscard]] std::string totalsText(const SentTotals& totals);
