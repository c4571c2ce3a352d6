// What a run passed to its sink, to be compared with the counts at the receiving end.

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
    uint64_t messages = 0;             // with a subject; one in two packets counts once
    std::vector<bool> subjectSent;     // by number
    std::vector<bool> hostStatusSent;  // by host: each has a status subject of its own
    double seconds = 0;                // from the first packet to the sink's end
};

// Prints a line for each kind, "sent KIND PACKETS BYTES", then "sent messages N", "sent subjects N"
// and "sent seconds S".
[[nodiscard]] std::string totalsText(const SentTotals& totals);
