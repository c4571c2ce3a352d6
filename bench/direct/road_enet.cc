// ENet's reliable packets, on one channel.
//
// Its window is in bytes of payload. The peer's offer of 64 KB is put down to kRoadFlightBytes
// before each pass, since ENet renews it each second, and the throttle, which would make it smaller
// where round trips vary, is kept open. A pass comes at least each millisecond: ENet looks at its
// timers there alone.

#include <enet/enet.h>

#include <vector>

#include "bench/direct/direct_road.h"

namespace {

constexpr enet_uint32 kPassMs = 1;
constexpr enet_uint32 kThrottleMs = 1000;
constexpr enet_uint32 kPatienceMs = 60'000;

uint64_t waitingBytes;

ENetHost* openHost(const ENetAddress* own) {
    if (enet_initialize() != 0) roadFail("enet", "initialize");
    ENetHost* const host = enet_host_create(own, 1, 1, 0, 0);
    if (host == nullptr) roadFail("enet", "host");
    host->mtu = kRoadDatagramBytes;
    return host;
}

ENetAddress loopback(uint16_t port) {
    return {.host = ENET_HOST_TO_NET_32(0x7f000001u), .port = port};
}

void receive(uint16_t port) {
    const ENetAddress own = loopback(port);
    ENetHost* const host = openHost(&own);
    roadIsReady();
    for (;;) {
        ENetEvent event;
        const int got = enet_host_service(host, &event, kPassMs);
        if (got < 0) roadFail("enet", "service");
        if (got == 0) continue;
        if (event.type == ENET_EVENT_TYPE_DISCONNECT) roadFail("enet", "disconnected");
        if (event.type != ENET_EVENT_TYPE_RECEIVE) continue;
        roadTake(event.packet->dataLength, 1);
        enet_packet_destroy(event.packet);
    }
}

void countGone(ENetPacket* packet) {
    waitingBytes -= packet->dataLength;
}

ENetPeer* connectTo(ENetHost* host, uint16_t port) {
    const ENetAddress address = loopback(port);
    ENetPeer* const peer = enet_host_connect(host, &address, 1, 0);
    if (peer == nullptr) roadFail("enet", "connect");
    ENetEvent event;
    while (enet_host_service(host, &event, kPatienceMs) != 1 ||
           event.type != ENET_EVENT_TYPE_CONNECT) {
    }
    enet_peer_throttle_configure(peer, kThrottleMs, ENET_PEER_PACKET_THROTTLE_SCALE, 0);
    enet_peer_timeout(peer, 0, kPatienceMs, kPatienceMs);
    return peer;
}

void send(uint16_t port, uint32_t messageBytes) {
    ENetHost* const host = openHost(nullptr);
    ENetPeer* const peer = connectTo(host, port);
    const std::vector<uint8_t> bytes(messageBytes, 'x');
    for (;;) {
        while (waitingBytes + messageBytes <= kRoadBacklogBytes && roadMaySend()) {
            ENetPacket* const packet =
                enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
            if (packet == nullptr) roadFail("enet", "packet");
            packet->freeCallback = countGone;
            waitingBytes += messageBytes;
            if (enet_peer_send(peer, 0, packet) != 0) roadFail("enet", "send");
        }
        peer->windowSize = kRoadFlightBytes;
        ENetEvent event;
        const int got = enet_host_service(host, &event, kPassMs);
        if (got < 0) roadFail("enet", "service");
        if (got > 0 && event.type == ENET_EVENT_TYPE_DISCONNECT) roadFail("enet", "disconnected");
    }
}

}  // namespace

const DirectRoad kEnetDirect = {"enet", receive, send, nullptr};
