#include "lib/transport/daemon/direct_endpoint.h"

#include <algorithm>
#include <cstdio>

#include "lib/base/bytes.h"
#include "lib/base/log.h"
#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/transport/reliable/reliable_endpoint.h"

namespace {

constexpr size_t kAddressChars = 16;

// Losses

struct LossWords {
    const char* name;
    const char* description;
};
constexpr LossWords kInbound = {
    "DATALOSS.INBOUND.PTP", "dataloss: remote daemon did not satisfy our retransmission requests"};
constexpr LossWords kOutbound = {"DATALOSS.OUTBOUND.PTP",
                                 "dataloss: remote daemon did not acknowledge our transmission"};

void addressText(char (&text)[kAddressChars], uint32_t host) {
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", host >> 24, host >> 16 & 255, host >> 8 & 255,
                  host & 255);
}

pelmoStatus addLossFields(pelmoMsg* advisory, uint32_t host, uint64_t bytes) {
    char text[kAddressChars];
    addressText(text, host);
    const pelmoStatus status = pelmoMsg_AddString(advisory, "host", text, 0);
    if (status != kStatusSuccess || bytes == 0) return status;
    const auto count = static_cast<uint32_t>(std::min(bytes, uint64_t{UINT32_MAX}));
    return pelmoMsg_AddU32(advisory, "bytes_dropped", count, 0);
}

pelmoStatus adviseLoss(uint32_t transport, const LossWords& words, uint32_t host, uint64_t bytes) {
    pelmoMsg* made = nullptr;
    pelmoStatus status = advisoryCreate(&made, "ERROR", "SYSTEM", words.name, words.description);
    if (status != kStatusSuccess) return status;
    HeldMessage advisory(made);
    status = addLossFields(made, host, bytes);
    return status == kStatusSuccess ? transportDistribute(transport, advisory.release()) : status;
}

// A loss is logged even if no advisory can be sent: without memory, and once the transport has been
// destroyed and only its endpoint still flushes.
void onDirectLoss(
    bool inbound, uint32_t peerAddress, uint16_t /*peerPort*/, uint64_t bytes, uintptr_t closure) {
    const LossWords& words = inbound ? kInbound : kOutbound;
    const auto transport = static_cast<uint32_t>(closure);
    if (adviseLoss(transport, words, peerAddress, bytes) == kStatusSuccess) return;
    char text[kAddressChars];
    addressText(text, peerAddress);
    logPrint("%s (%s)", words.description, text);
}

// Messages

void onDirectData(uint32_t /*peerAddress*/, Dpa* messages, uintptr_t closure) {
    const std::span batch(reinterpret_cast<pelmoMsg* const*>(messages->items), messages->count);
    Held<Transport> held;
    if (held.find(static_cast<uint32_t>(closure)) == kStatusSuccess) {
        return Transport_DeliverBatch(held.get(), batch);
    }
    for (pelmoMsg* message : batch)
        msgRelease(message);
}

// The table's functions

pelmoStatus send(ReliableEndpoint* endpoint,
                 uint32_t host,
                 uint16_t port,
                 std::span<pelmoMsg* const> messages) {
    constexpr bool kAtOnce = false;
    return ReliableEndpoint_Send(endpoint, hostOrder32(host), port, messages, kAtOnce);
}

void setTransport(ReliableEndpoint* endpoint, uint32_t transportId) {
    ReliableEndpoint_SetClosure(endpoint, transportId);
}

void traffic(ReliableEndpoint* endpoint, pelmoDirectTraffic* out) {
    const EndpointCounts counts = ReliableEndpoint_Counts(endpoint);
    *out = {.messagesSent = counts.messagesSent,
            .messagesReceived = counts.messagesReceived,
            .packetsSent = counts.packetsSent,
            .packetsReceived = counts.packetsReceived,
            .packetsResent = counts.packetsResent,
            .packetsDropped = counts.packetsDropped,
            .port = ReliableEndpoint_Port(endpoint)};
}

SendLosses closeFlushed(ReliableEndpoint* endpoint, double deadline) {
    EndpointUnsent unsent = {};
    (void)ReliableEndpoint_Close(endpoint, deadline, &unsent);
    return {.messages = unsent.messages, .bytes = unsent.bytes, .unconfirmed = false};
}

}  // namespace

void directEndpointAttach() {
    endpointOps = {.send = send,
                   .setTransport = setTransport,
                   .traffic = traffic,
                   .retain = ReliableEndpoint_Retain,
                   .release = ReliableEndpoint_Release,
                   .close = closeFlushed};
}

pelmoStatus directEndpointOpen(Transport* transport, DirectPeer* self) {
    ReliableEndpoint* made = nullptr;
    const pelmoStatus status = ReliableEndpoint_Open(&made, hostOrder32(self->host), self->port,
                                                     onDirectData, onDirectLoss, kNoId);
    if (status != kStatusSuccess) return status;
    self->port = ReliableEndpoint_Port(made);
    Id_Enter(&transport->header);
    transport->directEndpoint = made;
    transport->directSelf = *self;
    Id_Leave(&transport->header);
    return status;
}
