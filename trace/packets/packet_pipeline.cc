#include "trace/packets/packet_pipeline.h"

#include <cstring>
#include <utility>

#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/settings.h"

namespace {

constexpr uint32_t kPlaces = 8;  // a power of two
constexpr uint32_t kNewerAtRecord = 2;
constexpr uint32_t kNewerAtClassify = 4;
static_assert(kNewerAtClassify < kPlaces);

constexpr size_t kLargestBytes = 512;

// The records of fewer hosts stay in the cache.
constexpr uint32_t kCachedHosts = 4096;

struct WaitingPacket {
    TimeSpec time;
    FramePlace place;
    uint32_t senderHash;
    size_t length;
    uint8_t ip[kLargestBytes];  // only its own length is set
};

struct PacketPipeline {
    uint32_t entered;  // ever; the place of the next one, wrapped around
    uint32_t waiting;  // the last so many of them
    WaitingPacket places[kPlaces];
};

PacketPipeline pipeline;

// The waiting packet after which so many others have entered.
WaitingPacket& waitingPacket(uint32_t newer) {
    return pipeline.places[(pipeline.entered - 1 - newer) % kPlaces];
}

void classifyOldest() {
    const WaitingPacket& oldest = waitingPacket(--pipeline.waiting);
    const FramePlace newest = std::exchange(framePlace, oldest.place);
    classifyPacket(oldest.time, oldest.ip, oldest.length);
    framePlace = newest;
}

void enter(TimeSpec time, const uint8_t* ip, size_t length) {
    ++pipeline.entered;
    ++pipeline.waiting;
    WaitingPacket& packet = waitingPacket(0);
    packet.time = time;
    packet.place = framePlace;
    packet.length = length;
    std::memcpy(packet.ip, ip, length);
    packet.senderHash = hashOfPath(senderAhead(ip, length));
    probePrefetchSlot(statistics.hosts, packet.senderHash);
}

void moveOn() {
    if (pipeline.waiting > kNewerAtRecord) {
        const uint32_t hash = waitingPacket(kNewerAtRecord).senderHash;
        probePrefetchEntry(statistics.hosts, hash, kCacheLineBytes);
    }
    if (pipeline.waiting > kNewerAtClassify) classifyOldest();
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
    while (pipeline.waiting != 0) {
        classifyOldest();
    }
}
