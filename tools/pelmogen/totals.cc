#include "tools/pelmogen/totals.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr const char* kKindNames[kPacketKinds] = {
    "data",      "null",    "rreq",    "rrej",    "ptp-data",
    "ptp-ackme", "ptp-ack", "ptp-nak", "non-bus", "unknown",
};

void appendCount(std::string& text, const char* what, uint64_t count) {
    text += std::string("sent ") + what + " " + std::to_string(count) + "\n";
}

uint64_t countSet(const std::vector<bool>& bits) {
    return static_cast<uint64_t>(std::count(bits.begin(), bits.end(), true));
}

}  // namespace

std::string totalsText(const SentTotals& totals) {
    std::string text;
    for (size_t kind = 0; kind < kPacketKinds; ++kind) {
        const KindTotals& row = totals.kinds[kind];
        text += std::string("sent ") + kKindNames[kind] + " " + std::to_string(row.packets) + " " +
                std::to_string(row.payloadBytes) + "\n";
    }
    appendCount(text, "messages", totals.messages);
    appendCount(text, "subjects", countSet(totals.subjectSent) + countSet(totals.hostStatusSent));
    char seconds[64];
    std::snprintf(seconds, sizeof seconds, "sent seconds %.3f\n", totals.seconds);
    return text + seconds;
}
