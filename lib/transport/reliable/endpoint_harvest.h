// What several calls of an endpoint's core have found, to be told in one go once the lock is
// released: messages, losses, notices, and a send that failed.
//
// Ownership: the harvest owns messages and lists until they are told.
//
// Threads: no lock; telling calls back, with no lock held.

#pragma once

#include <cstdint>

#include "lib/transport/reliable/datagram_socket.h"
#include "lib/transport/reliable/endpoint_core.h"

inline constexpr uint32_t kHarvestPlaces = 16;

struct HarvestedMessages {
    uint32_t peerAddress;
    Dpa* messages;
};

struct Harvest {
    HarvestedMessages deliveries[kHarvestPlaces];
    uint32_t deliveryCount = 0;
    LossReport losses[kHarvestPlaces];
    uint32_t lossCount = 0;
    uint32_t notices = 0;  // bits of EndpointNotice
    SendFailure failure = {};
};

// Is there room for what one more call of the core can find?
[[nodiscard]] bool harvestHasRoom(const Harvest& harvest);

// Takes all that the call found. There is room.
void harvestTake(Harvest& harvest, const EndpointOutput& output);

// As in reliable_endpoint.h; either may be null.
struct HarvestCallbacks {
    void (*onData)(uint32_t peerAddress, Dpa* messages, uintptr_t closure);
    void (*onLoss)(
        bool inbound, uint32_t peerAddress, uint16_t peerPort, uint64_t bytes, uintptr_t closure);
    uintptr_t closure;
    uint16_t port;  // for log lines
};

// Tells, and empties the harvest.
void harvestTell(Harvest& harvest, const HarvestCallbacks& callbacks);
