// Reliable endpoints. Their window is the protocol's, 32 packets, and so is what may wait: 4 MB, at
// which the sender waits.

#include <arpa/inet.h>

#include <cstring>
#include <span>

#include "bench/direct/direct_road.h"
#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo.h"
#include "lib/transport/reliable/reliable_endpoint.h"

namespace {

ReliableEndpoint* sender;

void check(pelmoStatus status, const char* what) {
    if (status != kStatusSuccess) roadFail(what, pelmoStatus_GetText(status));
}

void take(uint32_t, Dpa* messages, uintptr_t) {
    uint64_t bytes = 0;
    for (void* const item : std::span(messages->items, messages->count)) {
        auto* const message = static_cast<pelmoMsg*>(item);
        bytes += loadBe32At(msgImage(message));
        msgRelease(message);
    }
    roadTake(bytes, messages->count);
}

void lose(bool, uint32_t, uint16_t, uint64_t, uintptr_t) {
    roadFail("pelmo", "data was lost");
}

ReliableEndpoint* openEndpoint(uint16_t port) {
    ReliableEndpoint* endpoint = nullptr;
    check(pelmo_Open(), "open");
    check(ReliableEndpoint_Open(&endpoint, htonl(INADDR_LOOPBACK), port, take, lose, 0),
          "endpoint");
    return endpoint;
}

void receive(uint16_t port) {
    openEndpoint(port);
    roadIsReady();
}

pelmoMsg* makeMessage(uint32_t bytes) {
    Buffer* const buffer = bufferCreate(bytes);
    if (buffer == nullptr) roadFail("buffer", "no memory");
    std::memset(buffer->data, 'x', bytes);
    storeBe32At(buffer->data, bytes);
    storeBe32At(buffer->data + kMessageMagicOffset, kMessageMagic);
    pelmoMsg* message = nullptr;
    check(msgCreateOverBuffer(&message, buffer, 0), "message");
    bufferRelease(buffer);
    return message;
}

void send(uint16_t port, uint32_t messageBytes) {
    sender = openEndpoint(0);
    pelmoMsg* const message = makeMessage(messageBytes);
    while (roadMaySend()) {
        check(ReliableEndpoint_Send(sender, htonl(INADDR_LOOPBACK), port, {&message, 1}, false),
              "send");
    }
}

uint64_t packetsSent() {
    return ReliableEndpoint_Counts(sender).packetsSent;
}

}  // namespace

const DirectRoad kPelmoDirect = {"pelmo", receive, send, packetsSent};
