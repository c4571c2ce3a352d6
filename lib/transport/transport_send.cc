// Sending: from the application's message to the path of its transport.

#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "lib/containers/dpa.h"
#include "lib/containers/subject.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/held_messages.h"
#include "lib/transport/reliable/send_buffer.h"
#include "lib/transport/transport_internal.h"

namespace {

// Parses the whole text, at most `mostDigits` hexadecimal digits.
bool parseHex(const char* text, size_t mostDigits, uint32_t& number) {
    const std::string_view digits(text);
    if (digits.empty() || digits.size() > mostDigits) return false;
    if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) return false;
    number = static_cast<uint32_t>(std::strtoul(text, nullptr, 16));
    return true;
}

// Does the subject name an inbox that can be reached without the daemon?
bool findDirectPeer(const uint8_t* subject, DirectPeer& peer) {
    constexpr size_t kHostDigits = 8;
    constexpr size_t kPortDigits = 4;
    if (subjectElementCount(subject) < 3 || !subjectIsInbox(subject)) return false;
    const char* text = subjectElement(subject, 3);
    uint32_t port = 0;
    if (text[0] != 'P' || !parseHex(text + 1, kPortDigits, port) ||
        !parseHex(subjectElement(subject, 2), kHostDigits, peer.host)) {
        return false;
    }
    peer.port = static_cast<uint16_t>(port);
    return true;
}

// The next functions are called with the object lock held and release it meanwhile.

// For an inbox of the transport's own, to which no packet has to travel.
pelmoStatus deliverToSelf(Transport* transport, pelmoMsg* message)
    PELMO_REQUIRES(transport->header.lock) {
    pelmoMsg* copy = nullptr;
    const pelmoStatus status = msgShareCopy(&copy, message);
    if (status != kStatusSuccess) return status;
    Id_Leave(&transport->header);
    Transport_DeliverBatch(transport, {&copy, 1});
    Id_Enter(&transport->header);
    return status;
}

pelmoStatus sendDirect(Transport* transport, const DirectPeer& peer, pelmoMsg* message)
    PELMO_REQUIRES(transport->header.lock) {
    if (peer == transport->directSelf) return deliverToSelf(transport, message);
    ReliableEndpoint* const endpoint = transport->directEndpoint;
    endpointOps.retain(endpoint);
    Id_Leave(&transport->header);
    const pelmoStatus status = endpointOps.send(endpoint, peer.host, peer.port, {&message, 1});
    endpointOps.release(endpoint);
    Id_Enter(&transport->header);
    return status;
}

pelmoStatus sendOnNetwork(Transport* transport, pelmoMsg* message)
    PELMO_REQUIRES(transport->header.lock) {
    const uint8_t* subject = nullptr;
    DirectPeer peer{};
    if (transport->directEndpoint != nullptr &&
        messageSubject(message, &subject) == kStatusSuccess && findDirectPeer(subject, peer)) {
        return sendDirect(transport, peer, message);
    }
    if (transport->link == nullptr) return kStatusInvalidTransport;
    Id_Leave(&transport->header);
    const pelmoStatus status = daemonLinkOps.send(transport, message);
    Id_Enter(&transport->header);
    return status;
}

// The message to be sent, after checks and hooks; null when the transport was destroyed meanwhile.
pelmoStatus prepare(Transport* transport, pelmoMsg* message, HeldMessage& ready)
    PELMO_REQUIRES(transport->header.lock) {
    pelmoMsg* made = nullptr;
    pelmoStatus status = transportMakeReady(transport, message, &made);
    if (status != kStatusSuccess) return status;
    status = Transport_RunHooks(transport, kHookSend, &made);
    ready.reset(made);
    if (status != kStatusSuccess || Id_IsInvalid(&transport->header)) ready.reset();
    return status;
}

// The object lock is released meanwhile.
pelmoStatus sendTogether(Transport* transport, const HeldMessages& outgoing, uint32_t* taken)
    PELMO_REQUIRES(transport->header.lock) {
    if (outgoing.all().empty()) return kStatusSuccess;
    if (transport->link == nullptr) return kStatusInvalidTransport;
    uint32_t ofThese = 0;
    Id_Leave(&transport->header);
    const pelmoStatus status = daemonLinkOps.sendVector(transport, outgoing.all(), &ofThese);
    Id_Enter(&transport->header);
    *taken += ofThese;
    return status;
}

// May the message go straight to a peer?
bool mayGoStraight(Transport* transport, pelmoMsg* message) PELMO_REQUIRES(transport->header.lock) {
    const uint8_t* subject = nullptr;
    return transport->directEndpoint != nullptr &&
           messageSubject(message, &subject) == kStatusSuccess && subjectIsInbox(subject);
}

// Both roads take messages of the same length.
bool areShort(std::span<pelmoMsg* const> messages) {
    for (const pelmoMsg* message : messages) {
        if (message->length > kMostReliableMessageBytes) return false;
    }
    return true;
}

// All messages are ready before the first that is sent, so that one that isn't leaves none.
pelmoStatus sendAllOnNetwork(Transport* transport,
                             std::span<pelmoMsg* const> messages,
                             uint32_t* taken) PELMO_REQUIRES(transport->header.lock) {
    HeldMessages straight, together;
    if (!straight.makeRoom(messages.size()) || !together.makeRoom(messages.size())) {
        return kStatusNoMemory;
    }
    for (pelmoMsg* message : messages) {
        HeldMessage ready;
        const pelmoStatus status = prepare(transport, message, ready);
        if (status != kStatusSuccess) return status;
        if (ready == nullptr) continue;
        (mayGoStraight(transport, ready.get()) ? straight : together).add(std::move(ready));
    }
    // What goes straight leaves before the rest, one by one.
    const bool isMixed = !straight.all().empty();
    if (isMixed && !(areShort(straight.all()) && areShort(together.all()))) {
        return kStatusInvalidSize;
    }
    for (pelmoMsg* message : straight.all()) {
        const pelmoStatus status = sendOnNetwork(transport, message);
        if (status != kStatusSuccess) return status;
        ++*taken;
    }
    return sendTogether(transport, together, taken);
}

pelmoStatus deliverAll(Held<Transport>& transport,
                       std::span<pelmoMsg* const> messages,
                       uint32_t* taken) PELMO_REQUIRES(transport->header.lock) {
    for (pelmoMsg* message : messages) {
        HeldMessage ready;
        pelmoStatus status = prepare(transport.get(), message, ready);
        if (status == kStatusSuccess && ready != nullptr) {
            status = Transport_Deliver(transport, ready.get());
            transport.enter();
        }
        if (status != kStatusSuccess) return status;
        ++*taken;
    }
    return kStatusSuccess;
}

// All messages are made ready before the circuit gives its first number: one that can't be sent
// would leave a gap. Within the process the messages before the bad one are sent.
pelmoStatus sendAllOnCircuit(Transport* circuit,
                             std::span<pelmoMsg* const> messages,
                             uint32_t* taken) PELMO_REQUIRES(circuit->header.lock) {
    HeldMessages ready;
    if (!ready.makeRoom(messages.size())) return kStatusNoMemory;
    pelmoStatus failure = kStatusSuccess;
    for (pelmoMsg* message : messages) {
        HeldMessage one;
        failure = prepare(circuit, message, one);
        if (failure != kStatusSuccess) break;
        if (one != nullptr) ready.add(std::move(one));
    }
    const bool sendsSome = circuit->underlying == kIntraProcessTransportId;
    if (ready.all().empty() || (failure != kStatusSuccess && !sendsSome)) return failure;
    const pelmoStatus status = circuitOps.sendVector(circuit, ready.all(), taken);
    return status != kStatusSuccess ? status : failure;
}

pelmoStatus sendAll(Held<Transport>& transport,
                    std::span<pelmoMsg* const> messages,
                    uint32_t* taken) PELMO_REQUIRES(transport->header.lock) {
    if (messages.empty()) return kStatusSuccess;
    switch (transport->kind) {
        case TransportKind::kIntraProcess:
            return deliverAll(transport, messages, taken);
        case TransportKind::kNetwork:
            return sendAllOnNetwork(transport.get(), messages, taken);
        case TransportKind::kCircuit:
            break;
    }
    return sendAllOnCircuit(transport.get(), messages, taken);
}

// Whether the lock is still held on return differs by kind.
pelmoStatus sendOne(Held<Transport>& transport, pelmoMsg* message) PELMO_UNCHECKED_LOCKING {
    HeldMessage ready;
    const pelmoStatus status = prepare(transport.get(), message, ready);
    if (status != kStatusSuccess || ready == nullptr) return status;
    switch (transport->kind) {
        case TransportKind::kIntraProcess:
            return Transport_Deliver(transport, ready.get());
        case TransportKind::kNetwork:
            return sendOnNetwork(transport.get(), ready.get());
        case TransportKind::kCircuit:
            break;
    }
    return circuitOps.send(transport.get(), ready.get());
}

}  // namespace

bool transportReachesDirectly(uint32_t transport, const uint8_t* inbox) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return false;
    DirectPeer peer{};
    return held->directEndpoint != nullptr && findDirectPeer(inbox, peer);
}

pelmoStatus transportSend(uint32_t transport, pelmoMsg* message) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    return sendOne(held, message);
}

pelmoStatus transportSendVector(uint32_t transport,
                                std::span<pelmoMsg* const> messages,
                                uint32_t* taken) {
    *taken = 0;
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    return sendAll(held, messages, taken);
}

pelmoStatus pelmoTransport_Send(uint32_t transport, pelmoMsg* message) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceMessage(kTraceTransport, message, "pelmoTransport_Send(%u, %p)", transport,
                 tracePointer(message));
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    return transportSend(transport, message);
}

pelmoStatus pelmoTransport_Sendv(uint32_t transport, const Dpa* messages) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_Sendv(%u, %p)", transport, tracePointer(messages));
    if (messages == nullptr) return kStatusInvalidArgument;
    uint32_t taken;
    return transportSendVector(
        transport, {reinterpret_cast<pelmoMsg* const*>(messages->items), messages->count}, &taken);
}

pelmoStatus pelmoTransport_Sendv(uint32_t transport, pelmoMsg* const* messages, uint32_t count) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_Sendv(%u, %p, %u)", transport,
              tracePointer(messages), count);
    if (messages == nullptr) return kStatusInvalidArgument;
    uint32_t taken;
    return transportSendVector(transport, {messages, count}, &taken);
}

pelmoStatus pelmoTransport_SendvTaken(uint32_t transport,
                                      pelmoMsg* const* messages,
                                      uint32_t count,
                                      uint32_t* outTaken) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_SendvTaken(%u, %p, %u)", transport,
              tracePointer(messages), count);
    if (outTaken == nullptr) return kStatusInvalidArgument;
    *outTaken = 0;
    if (messages == nullptr) return kStatusInvalidArgument;
    return transportSendVector(transport, {messages, count}, outTaken);
}
