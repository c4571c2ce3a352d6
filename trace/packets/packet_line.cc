#include "trace/packets/packet_line.h"

#include <cstring>

#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/settings.h"

namespace {

constexpr uint32_t kPlaces = 8;  // a power of two
constexpr uint32_t kBehindForRecord = 2;
constexpr uint32_t kBehindToClassify = 4;
static_assert(kBehindToClassify < kPlaces);

constexpr size_t kLargestBytes = 512;

// The records of fewer stay in the cache.
constexpr uint32_t kCachedHosts = 4096;

struct WaitingPacket {
    TimeSpec time;
    uint32_t senderHash;
    size_t length;
    uint8_t ip[kLargestBytes];  // only its own length is set
};

struct PacketLine {
    uint32_t entered;  // ever; the place of the next one, wrapped around
    uint32_t waiting;  // the last so many that entered
    WaitingPacket places[kPlaces];
};

PacketLine line;

// The one with so many behind it.
WaitingPacket& packetAhead(uint32_t behind) {
    return line.places[(line.entered - 1 - behind) % kPlaces];
}

void classifyOldest() {
    const WaitingPacket& oldest = packetAhead(--line.waiting);
    classifyPacket(oldest.time, oldest.ip, oldest.length);
}

void enter(TimeSpec time, const uint8_t* ip, size_t length) {
    ++line.entered;
    ++line.waiting;
    WaitingPacket& packet = packetAhead(0);
    packet.time = time;
    packet.length = length;
    std::memcpy(packet.ip, ip, length);
    packet.senderHash = hashOfPath(senderAhead(ip, length));
    probePrefetchSlot(statistics.hosts, packet.senderHash);
}

void moveOn() {
    if (line.waiting > kBehindForRecord) {
        const uint32_t hash = packetAhead(kBehindForRecord).senderHash;
        probePrefetchEntry(statistics.hosts, hash, kCacheLineBytes);
    }
    if (line.waiting > kBehindToClassify) classifyOldest();
}

}  // namespace

void packetEnter(TimeSpec time, const uint8_t* ip, size_t length) {
    const bool pays = statistics.hosts.count > kCachedHosts && length <= kLargestBytes;
    if (pays && !traceSettings.complain) {
        enter(time, ip, length);
        return moveOn();
    }
    packetsSettle();
    classifyPacket(time, ip, length);
}

void packetsSettle() {
    while (line.waiting != 0) {
        classifyOldest();
    }
}
