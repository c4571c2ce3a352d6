#include "watch/capture/capture_tail.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

uint32_t load32(const CaptureClock& clock, const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return clock.isSwapped ? __builtin_bswap32(word) : word;
}

// ---- pcap ----

constexpr size_t kRecordHeadBytes = 16;

// Fewer records might be the bytes of a packet, of a capture that is on its way perhaps.
constexpr uint8_t kLeastRecords = 8;

// How a chain of records goes on from an offset to the end.
struct Chain {
    uint32_t lastAt;  // of its last record
    uint8_t records;  // up to kLeastRecords; 0 where it doesn't reach the end
};

Chain chainFrom(std::span<const uint8_t> tail,
                size_t at,
                const CaptureClock& clock,
                const std::vector<Chain>& chains) {
    const uint64_t end = at + kRecordHeadBytes + uint64_t{load32(clock, &tail[at + 8])};
    if (end == tail.size()) return {static_cast<uint32_t>(at), 1};
    if (end > tail.size() - kRecordHeadBytes) return {0, 0};
    const Chain rest = chains[end];
    if (rest.records == 0) return rest;
    return {rest.lastAt, std::min<uint8_t>(rest.records + 1, kLeastRecords)};
}

std::optional<int64_t> latestRecord(std::span<const uint8_t> tail, const CaptureClock& clock) {
    if (tail.size() < kRecordHeadBytes) return {};
    std::optional<int64_t> latest;
    std::vector<Chain> chains(tail.size() - kRecordHeadBytes + 1);
    for (size_t at = chains.size(); at-- > 0;) {
        chains[at] = chainFrom(tail, at, clock, chains);
        if (chains[at].records < kLeastRecords) continue;
        const int64_t seconds = static_cast<int32_t>(load32(clock, &tail[chains[at].lastAt]));
        latest = std::max(latest.value_or(seconds), seconds);
    }
    return latest;
}

// ---- pcapng ----

constexpr uint32_t kOldPacketBlock = 2;
constexpr uint32_t kPacketBlock = 6;
constexpr size_t kLeastBlockBytes = 12;
constexpr size_t kLeastPacketBytes = 32;

// Of kinds that may follow the last packet and leave the interfaces as they are: names, statistics,
// secrets, and whatever an application adds.
bool isHarmless(uint32_t kind) {
    constexpr uint32_t kNames = 4, kStatistics = 5, kSecrets = 10;
    constexpr uint32_t kCustom = 0xbad, kCustomUncopied = 0x40000bad;
    return kind == kNames || kind == kStatistics || kind == kSecrets || kind == kCustom ||
           kind == kCustomUncopied;
}

std::optional<int64_t> lastPacketBlock(std::span<const uint8_t> tail, const CaptureClock& clock) {
    while (tail.size() >= kLeastBlockBytes) {
        const uint32_t blockBytes = load32(clock, &tail[tail.size() - 4]);
        if (blockBytes < kLeastBlockBytes || blockBytes > tail.size()) return {};
        const uint8_t* const block = &tail[tail.size() - blockBytes];
        const uint32_t kind = load32(clock, block);
        if (load32(clock, block + 4) != blockBytes) return {};
        if (kind == kPacketBlock || kind == kOldPacketBlock) {
            if (blockBytes < kLeastPacketBytes) return {};
            const uint64_t ticks =
                uint64_t{load32(clock, block + 12)} << 32 | load32(clock, block + 16);
            return static_cast<int64_t>(ticks / clock.ticksASecond +
                                        static_cast<uint64_t>(clock.offsetSeconds));
        }
        if (!isHarmless(kind)) return {};
        tail = tail.first(tail.size() - blockBytes);
    }
    return {};
}

}  // namespace

std::optional<int64_t> captureTailSeconds(std::span<const uint8_t> tail,
                                          const CaptureClock& clock) {
    return clock.isPcapng ? lastPacketBlock(tail, clock) : latestRecord(tail, clock);
}
