#include "watch/capture/not_read.h"

#include <numeric>

#include "watch/capture/peel.h"

std::string notReadText(std::span<const uint64_t> counts) {
    std::string text;
    for (size_t kind = 1; kind < kNotReadKinds && kind < counts.size(); ++kind) {
        if (counts[kind] == 0) continue;
        if (!text.empty()) text += ", ";
        text += std::to_string(counts[kind]) + " " + notReadRow(static_cast<NotRead>(kind)).words;
    }
    return text;
}

std::string notReadSummary(std::span<const uint64_t> counts, uint64_t busPackets) {
    const std::string reasons = notReadText(counts);
    if (reasons.empty()) return {};
    if (busPackets > 0) return "not the bus's: " + reasons;
    const uint64_t frames = std::accumulate(counts.begin(), counts.end(), uint64_t{0});
    return (frames == 1 ? "the only frame isn't the bus's: "
                        : "none of " + std::to_string(frames) + " frames is the bus's: ") +
           reasons;
}
