// The output of several calls of an endpoint's core: messages, losses, notices, and a send that
// failed. They are collected under the endpoint's lock and delivered after it is released.
//
// Ownership: messages and lists belong to the events until they are delivered.
//
// Threads: no lock. Delivery runs the owner's callbacks with no lock held.

#pragma once

#include <cstdint>

#include "lib/transport/reliable/datagram_socket.h"
#include "lib/transport/reliable/endpoint_core.h"

inline constexpr uint32_t kMostEndpointEvents = 16;

struct PeerMessages {
    uint32_t peerAddress;
    Dpa* messages;
};

struct EndpointEvents {
    PeerMessages deliveries[kMostEndpointEvents];
    uint32_t deliveryCount = 0;
    LossReport losses[kMostEndpointEvents];
    uint32_t lossCount = 0;
    uint32_t notices = 0;  // bits of EndpointNotice
    SendFailure failure = {};
};

// Whether the output of one more call of the core fits.
[[nodiscard]] bool endpointEventsHaveRoom(const EndpointEvents& events);

// Adds the output of a call of the core; endpointEventsHaveRoom was true.
void endpointEventsAdd(EndpointEvents& events, const EndpointOutput& output);

// As in reliable_endpoint.h; either may be null.
struct EndpointCallbacks {
    void (*onData)(uint32_t peerAddress, Dpa* messages, uintptr_t closure);
    void (*onLoss)(
        bool inbound, uint32_t peerAddress, uint16_t peerPort, uint64_t bytes, uintptr_t closure);
    uintptr_t closure;
    uint16_t port;  // for log lines
};

// Runs the callbacks and logs the notices, then empties the events.
void endpointEventsDeliver(EndpointEvents& events, const EndpointCallbacks& callbacks);
