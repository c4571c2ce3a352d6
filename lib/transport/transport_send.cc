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
pelmoStatus sendTogether(Transport* transport, const HeldMessages& outgoing)
    PELMO_REQUIRES(transport->header.lock) {
    if (outgoing.all().empty()) return kStatusSuccess;
    Id_Leave(&transport->header);
    const pelmoStatus status = daemonLinkOps.sendVector(transport, outgoing.all());
    Id_Enter(&transport->header);
    return status;
}

// Sends by a transport that isn't a circuit.
pelmoStatus sendOrGather(Held<Transport>& transport, HeldMessage ready, HeldMessages& outgoing)
    PELMO_REQUIRES(transport->header.lock) {
    switch (transport->kind) {
        case TransportKind::kIntraProcess: {
            const pelmoStatus status = Transport_Deliver(transport, ready.get());
            transport.enter();
            return status;
        }
        case TransportKind::kNetwork: {
            const uint8_t* subject = nullptr;
            const bool direct = transport->directEndpoint != nullptr &&
                                messageSubject(ready.get(), &subject) == kStatusSuccess &&
                                subjectIsInbox(subject);
            if (direct) return sendOnNetwork(transport.get(), ready.get());
            if (transport->link == nullptr) return kStatusInvalidTransport;
            outgoing.add(std::move(ready));
            return kStatusSuccess;
        }
        case TransportKind::kCircuit:
            break;
    }
    return kStatusInvalidTransport;
}

// Ahead of the first number that a circuit gives, all messages are ready: one that isn't would
// leave a gap. Within the process those ahead of it have been delivered.
pelmoStatus sendAllOnCircuit(Transport* circuit, std::span<pelmoMsg* const> messages)
    PELMO_REQUIRES(circuit->header.lock) {
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
    const pelmoStatus status = circuitOps.sendVector(circuit, ready.all());
    return status != kStatusSuccess ? status : failure;
}

pelmoStatus sendAll(Held<Transport>& transport, std::span<pelmoMsg* const> messages)
    PELMO_REQUIRES(transport->header.lock) {
    if (messages.empty()) return kStatusSuccess;
    if (transport->kind == TransportKind::kCircuit) {
        return sendAllOnCircuit(transport.get(), messages);
    }
    HeldMessages outgoing;
    const bool staysHere = transport->kind == TransportKind::kIntraProcess;
    if (!staysHere && !outgoing.makeRoom(messages.size())) return kStatusNoMemory;
    pelmoStatus status = kStatusSuccess;
    for (pelmoMsg* message : messages) {
        HeldMessage ready;
        status = prepare(transport.get(), message, ready);
        if (status == kStatusSuccess && ready != nullptr) {
            status = sendOrGather(transport, std::move(ready), outgoing);
        }
        if (status != kStatusSuccess) return status;
    }
    return sendTogether(transport.get(), outgoing);
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

pelmoStatus transportSendVector(uint32_t transport, std::span<pelmoMsg* const> messages) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    return sendAll(held, messages);
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
    return transportSendVector(
        transport, {reinterpret_cast<pelmoMsg* const*>(messages->items), messages->count});
}

pelmoStatus pelmoTransport_Sendv(uint32_t transport, pelmoMsg* const* messages, uint32_t count) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "pelmoTransport_Sendv(%u, %p, %u)", transport,
              tracePointer(messages), count);
    if (messages == nullptr) return kStatusInvalidArgument;
    return transportSendVector(transport, {messages, count});
}
