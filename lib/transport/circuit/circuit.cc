// A circuit's life: its creation, the handshake, what its peer sends, its end.

#include "lib/transport/circuit/circuit.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "lib/base/text.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/no_wait.h"
#include "lib/transport/circuit/circuit_internal.h"
#include "lib/transport/reliable/reliable_endpoint.h"

namespace {

constexpr size_t kInboxTextBytes = kInboxPrefixBytes + 24;
constexpr const char* kClassInfo = "INFO";
constexpr const char* kClassError = "ERROR";

// Reasons of ends without the peer's goodbye
constexpr const char* kGone = "remote unreachable";
constexpr const char* kUnwatched = "out of memory";

// A live circuit that isn't being destroyed, locked.
struct HeldCircuit {
    Held<Transport> held;
    VirtualCircuit* circuit = nullptr;

    // False also for another transport.
    [[nodiscard]] bool find(uint32_t id) PELMO_ASSERTS(circuit->transport->header.lock) {
        if (held.findLocked(id) != kStatusSuccess) return false;
        circuit = held->circuit;
        return circuit != nullptr && !held->destroying;
    }

    // Unchecked: within, the lock goes by another name.
    void leave() PELMO_RELEASE(circuit->transport->header.lock) PELMO_UNCHECKED_LOCKING {
        held.leave();
    }
    void enter() PELMO_ASSERTS(circuit->transport->header.lock) PELMO_UNCHECKED_LOCKING {
        held.enter();
    }
};

void endEvent(uint32_t* event) {
    if (*event != kNoId) pelmoEvent_DestroyEx(std::exchange(*event, kNoId), nullptr);
}

// Ends what belongs to a connection, but for the transport and its listeners. The lock is released
// meanwhile, by when the circuit has ended for everybody. The advisory comes to listeners before
// the wake-up, so that who was woken finds it on its queue.
void endLocked(VirtualCircuit* circuit, const char* reason, bool saysGoodbye)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    if (circuit->vcState == CircuitState::kDisconnected) return;
    const NoWait noWait;
    endEvent(&circuit->heartbeatTimer);
    endEvent(&circuit->unreachableListener);
    endEvent(&circuit->graceTimer);
    const bool wasConnected = circuit->vcState == CircuitState::kConnected;
    circuit->vcState = CircuitState::kDisconnected;
    if (saysGoodbye && wasConnected) {
        circuit->owesGoodbye = circuit->turns != 0;
        if (!circuit->owesGoodbye) (void)circuitSendSign(circuit, CircuitKind::kGoodbye);
    }
    if (!circuit->transport->destroying) {
        circuitReport(circuit, reason != nullptr ? kClassError : kClassInfo, "VC.DISCONNECTED",
                      reason);
    }
    Cond_Broadcast(&circuit->changed);
}

// What the peer sends

// What other threads are doing may take the circuit on, or end without a word of it.
void awaitOthersLocked(VirtualCircuit* circuit) PELMO_REQUIRES(circuit->transport->header.lock) {
    constexpr double kStepSeconds = 0.01;
    (void)Id_TimedWait(&circuit->transport->header, &circuit->changed, kStepSeconds);
}

// What came in one batch, up to the circuit's end.
struct Parcels {
    pelmoMsg* messages[kMostBatchMessages];
    uint32_t count = 0;
};

enum class Ending { kNone, kByPeer, kDataLoss, kInvalidMessage };

struct EndingRow {
    const char* reason;
    bool saysGoodbye;
};

constexpr EndingRow kEndings[] = {
    {nullptr, false}, {nullptr, false}, {"data loss", true}, {"invalid message", true}};

void endByLocked(VirtualCircuit* circuit, Ending ending)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    const EndingRow& row = kEndings[static_cast<size_t>(ending)];
    if (ending != Ending::kNone) endLocked(circuit, row.reason, row.saysGoodbye);
}

// On a reserved subject a peer could pretend to be the library, and fake the circuit's end.
bool isForgedLocked(VirtualCircuit* circuit, const pelmoMsg* parcel)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    if (!subjectIsReserved(msgImage(parcel) + parcel->sendSubjectOffset)) return false;
    if (!std::exchange(circuit->hasDropped, true)) {
        logPrint("circuit %u: its peer sends on a subject of the library's own; not delivered",
                 circuit->transport->header.id);
    }
    return true;
}

// One message of the peer; those after the one that ends the circuit don't count.
Ending takeLocked(VirtualCircuit* circuit,
                  const CircuitRecords& records,
                  const CircuitHead& head,
                  Parcels& parcels) PELMO_REQUIRES(circuit->transport->header.lock) {
    switch (countArrival(circuit->count, head)) {
        case Arrival::kSign:
            return Ending::kNone;
        case Arrival::kParcel: {
            pelmoMsg* parcel = nullptr;
            if (circuitUnwrap(records, circuit->isLegacyPeer, &parcel) != kStatusSuccess) break;
            if (isForgedLocked(circuit, parcel)) {
                msgRelease(parcel);
            } else {
                parcels.messages[parcels.count++] = parcel;
            }
            return Ending::kNone;
        }
        case Arrival::kGoodbye:
            return Ending::kByPeer;
        case Arrival::kGap:
            return Ending::kDataLoss;
        case Arrival::kInvalid:
            break;
    }
    return Ending::kInvalidMessage;
}

// If several threads dispatch the work queue, one of them may bring a batch whose predecessors
// another thread has taken from the queue and not yet delivered. It waits for them as long as some
// dispatch may still bring them: once all dispatches wait, something is missing.
void awaitEarlierLocked(VirtualCircuit* circuit, uint64_t number)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    const uint64_t& received = circuit->count.recvSeq;
    uint64_t countedAt = UINT64_MAX;
    while (circuit->vcState == CircuitState::kConnected &&
           (circuit->isDelivering || number > received + 1)) {
        if (!circuit->isDelivering) {
            if (circuit->earlyAt != received) circuit->early = 0;
            circuit->earlyAt = received;
            if (std::exchange(countedAt, received) != received) ++circuit->early;
            if (circuit->early >= Event_RunningDispatches(circuit->controlListener)) return;
        }
        awaitOthersLocked(circuit);
    }
}

// All of the batch up to the circuit's end.
Ending takeAllLocked(VirtualCircuit* circuit, std::span<pelmoMsg* const> messages, Parcels& parcels)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    Ending ending = Ending::kNone;
    for (pelmoMsg* message : messages) {
        const CircuitRecords records(message);
        const CircuitHead head = circuitReadHead(records);
        if (message == messages.front()) awaitEarlierLocked(circuit, head.number);
        if (circuit->vcState != CircuitState::kConnected) break;
        ending = takeLocked(circuit, records, head, parcels);
        if (ending != Ending::kNone) break;
    }
    return ending;
}

// Handshake

void onTick(uint32_t, pelmoMsg*, void* closure) {
    vcTick(idFromItem(closure));
}

void onControl(pelmoMsg** messages, uint32_t count) {
    vcControl(idFromItem(messages[0]->deliveryClosure), {messages, count});
}

void onUnreachable(uint32_t, pelmoMsg*, void* closure) {
    vcUnreachable(idFromItem(closure));
}

void onGraceOver(uint32_t, pelmoMsg*, void* closure) {
    vcGraceOver(idFromItem(closure));
}

ListenerRequest requestFor(const VirtualCircuit* circuit, const char* subject) {
    return {.queueId = kWorkQueueId,
            .transportId = circuit->transport->underlying,
            .subject = subject,
            .kind = ListenerKind::kPlain,
            .closure = idToItem(circuit->transport->header.id)};
}

pelmoStatus listen(const VirtualCircuit* circuit,
                   const char* subject,
                   pelmoEventCallback callback,
                   uint32_t* out) {
    ListenerRequest request = requestFor(circuit, subject);
    request.callback = callback;
    return Transport_AddListener(out, request);
}

// Gets what the peer has sent in batches of this circuit's alone.
pelmoStatus listenToPeer(VirtualCircuit* circuit, const char* subject)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    ListenerRequest request = requestFor(circuit, subject);
    request.kind = ListenerKind::kVector;
    request.vectorCallback = onControl;
    request.vectorGroup = circuit;
    return Transport_AddListener(&circuit->controlListener, request);
}

bool startTimer(VirtualCircuit* circuit) PELMO_REQUIRES(circuit->transport->header.lock) {
    return pelmoEvent_CreateTimer(&circuit->heartbeatTimer, kTimerQueueId, onTick, kTickSeconds,
                                  idToItem(circuit->transport->header.id)) == kStatusSuccess;
}

// From here on what the peer sends is taken.
void joinLocked(VirtualCircuit* circuit, const CircuitOffer& offer)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    std::memcpy(circuit->peerSubject, offer.controlInbox, subjectLength(offer.controlInbox));
    circuit->isLegacyPeer = offer.isLegacy;
    char gone[kSubjectTextBytes];
    if (handshakeUnreachableSubject(gone, circuit->peerSubject)) {
        // Without it, the peer's silence shows the same later.
        (void)listen(circuit, gone, onUnreachable, &circuit->unreachableListener);
    }
    circuit->vcState = CircuitState::kConnected;
}

void reportConnectLocked(VirtualCircuit* circuit) PELMO_REQUIRES(circuit->transport->header.lock) {
    endEvent(&circuit->handshakeListener);
    circuitReport(circuit, kClassInfo, "VC.CONNECTED", nullptr);
    Cond_Broadcast(&circuit->changed);
}

// What can fail comes before the answer: an end that knows of the other keeps the circuit. Messages
// of the peer may come before the own answer has left, so the end counts as connected until that
// fails.
void acceptLocked(VirtualCircuit* circuit, const CircuitOffer& offer)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    if (!startTimer(circuit)) return;
    joinLocked(circuit, offer);
    const pelmoStatus status = circuitSendAcceptance(circuit, offer.answerTo);
    if (circuit->vcState != CircuitState::kConnected) return;  // ended meanwhile
    if (status == kStatusSuccess) return reportConnectLocked(circuit);
    endEvent(&circuit->heartbeatTimer);
    endEvent(&circuit->unreachableListener);
    circuit->vcState = CircuitState::kWaiting;
}

// The peer counts the circuit as connected already, and is notified if it can't be watched.
void completeLocked(VirtualCircuit* circuit, const CircuitOffer& offer)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    const bool isWatched = startTimer(circuit);
    joinLocked(circuit, offer);
    reportConnectLocked(circuit);
    if (!isWatched) endLocked(circuit, kUnwatched, true);
}

void onHandshake(uint32_t, pelmoMsg* message, void* closure) {
    HeldCircuit held;
    if (!held.find(idFromItem(closure))) return;
    const NoWait noWait;
    CircuitOffer offer;
    if (!handshakeTakes(held.circuit->end, held.circuit->vcState, message, &offer)) return;
    if (held.circuit->end == CircuitEnd::kAccepting) {
        acceptLocked(held.circuit, offer);
    } else {
        completeLocked(held.circuit, offer);
    }
}

// What the peer sends may come to another thread before its acceptance.
void awaitHandshakeLocked(VirtualCircuit* circuit) PELMO_REQUIRES(circuit->transport->header.lock) {
    while (circuit->vcState == CircuitState::kWaiting &&
           Event_RunningDispatches(circuit->handshakeListener) != 0) {
        awaitOthersLocked(circuit);
    }
}

// Does the transport beneath reach the peer without the daemon?
bool isDirectLocked(const VirtualCircuit* circuit) PELMO_REQUIRES(circuit->transport->header.lock) {
    return transportReachesDirectly(circuit->transport->underlying, circuit->peerSubject);
}

// Creation

void destroyCircuit(VirtualCircuit* circuit) PELMO_UNCHECKED_LOCKING {  // no other thread has it
    for (uint32_t* event :
         {&circuit->controlListener, &circuit->handshakeListener, &circuit->heartbeatTimer,
          &circuit->unreachableListener, &circuit->graceTimer}) {
        endEvent(event);
    }
    Cond_Destroy(&circuit->changed);
    std::free(circuit->connectSubject);
    std::free(circuit);
}

VirtualCircuit* newCircuit(Transport* transport, CircuitEnd end) PELMO_UNCHECKED_LOCKING {
    auto* circuit = static_cast<VirtualCircuit*>(std::calloc(1, sizeof(VirtualCircuit)));
    if (circuit == nullptr) return nullptr;
    if (Cond_Init(&circuit->changed) != kStatusSuccess) {
        std::free(circuit);
        return nullptr;
    }
    circuit->transport = transport;
    circuit->end = end;
    return circuit;
}

pelmoStatus checkUnderlying(uint32_t underlying) {
    Held<Transport> held;
    if (held.find(underlying) != kStatusSuccess) return kStatusInvalidTransport;
    return held->kind != TransportKind::kCircuit ? kStatusSuccess : kStatusInvalidTransport;
}

// A transport with an id, to which the caller gets a reference more.
pelmoStatus makeTransport(HeldCircuit* out, CircuitEnd end, uint32_t underlying) {
    const pelmoStatus status = checkUnderlying(underlying);
    if (status != kStatusSuccess) return status;
    Transport* const transport = Transport_New(TransportKind::kCircuit);
    if (transport == nullptr) return kStatusNoMemory;
    transport->underlying = underlying;
    transport->circuit = newCircuit(transport, end);
    out->held.share(transport);
    if (transport->circuit == nullptr ||
        Id_SetGlobal(&transport->header, nullptr) != kStatusSuccess) {
        Id_Release(&transport->header, false);
        return kStatusNoMemory;
    }
    out->circuit = transport->circuit;
    return kStatusSuccess;
}

pelmoStatus makeInbox(const VirtualCircuit* circuit, char (&text)[kInboxTextBytes]) {
    return pelmoTransport_CreateInbox(circuit->transport->underlying, text, sizeof text);
}

pelmoStatus sendRequest(const VirtualCircuit* circuit, const char* to, const char* handshakeInbox) {
    const NoWait noWait;
    pelmoMsg* made = nullptr;
    const pelmoStatus status =
        circuitBuildRequest(&made, to, handshakeInbox, circuit->controlInbox);
    if (status != kStatusSuccess) return status;
    const HeldMessage request(made);
    return transportSend(circuit->transport->underlying, request.get());
}

// `inbox` gets that of the handshake.
pelmoStatus fillLocked(VirtualCircuit* circuit, char (&inbox)[kInboxTextBytes])
    PELMO_REQUIRES(circuit->transport->header.lock) {
    pelmoStatus status = makeInbox(circuit, inbox);
    if (status == kStatusSuccess) status = listenToPeer(circuit, inbox);
    if (status != kStatusSuccess) return status;
    char name[kInboxTextBytes + 2];
    std::snprintf(name, sizeof name, "%s.V", inbox);
    boundedCopy(circuit->transport->inboxPrefix, name, sizeof circuit->transport->inboxPrefix);
    if (subjectFromText(circuit->controlInbox, sizeof circuit->controlInbox, inbox) < 0) {
        return kStatusInvalidSubject;
    }
    status = makeInbox(circuit, inbox);
    if (status == kStatusSuccess) {
        status = listen(circuit, inbox, onHandshake, &circuit->handshakeListener);
    }
    if (status != kStatusSuccess || circuit->end == CircuitEnd::kConnecting) return status;
    circuit->connectSubject = concat2(inbox, "");
    return circuit->connectSubject != nullptr ? kStatusSuccess : kStatusNoMemory;
}

// The lock is held while the circuit is filled: anyone who guesses its inboxes finds a whole one.
// `connectSubject` is null at the accepting end. The checker can't follow that a failure has no
// circuit.
pelmoStatus create(HeldCircuit* out,
                   CircuitEnd end,
                   const char* connectSubject,
                   uint32_t underlying) PELMO_UNCHECKED_LOCKING {
    pelmoStatus status = makeTransport(out, end, underlying);
    if (status != kStatusSuccess) return status;
    char inbox[kInboxTextBytes];
    out->enter();
    status = fillLocked(out->circuit, inbox);
    out->leave();
    if (status == kStatusSuccess && connectSubject != nullptr) {
        status = sendRequest(out->circuit, connectSubject, inbox);
    }
    if (status != kStatusSuccess) pelmoTransport_Destroy(out->held->header.id);
    return status;
}

// Waiting

// False once the time is over.
bool awaitChange(VirtualCircuit* circuit, double deadline)
    PELMO_REQUIRES(circuit->transport->header.lock) {
    IdHeader* const object = &circuit->transport->header;
    if (deadline < 0) return Id_Wait(object, &circuit->changed) == kStatusSuccess;
    const double left = deadline - clockSteadySeconds();
    return left > 0 && Id_TimedWait(object, &circuit->changed, left) == kStatusSuccess;
}

}  // namespace

void circuitAttach() {
    circuitOps = {.send = vcSend,
                  .sendVector = vcSendVector,
                  .deliver = vcDeliver,
                  .disconnect = vcDisconnect,
                  .destroy = destroyCircuit};
}

void vcTick(uint32_t id) {
    HeldCircuit held;
    if (!held.find(id) || held.circuit->vcState != CircuitState::kConnected) return;
    switch (countTick(held.circuit->count)) {
        case Tick::kNothing:
            break;
        case Tick::kHeartbeat:
            if (circuitSendSign(held.circuit, CircuitKind::kHeartbeat) == kStatusSuccess) {
                countHeartbeatSent(held.circuit->count);
            }
            break;
        case Tick::kSilent:
            endLocked(held.circuit, "remote timeout", true);
            break;
    }
}

void vcControl(uint32_t id, std::span<pelmoMsg* const> messages) {
    HeldCircuit held;
    if (!held.find(id)) return;
    awaitHandshakeLocked(held.circuit);
    Parcels parcels;
    Ending ending = takeAllLocked(held.circuit, messages, parcels);
    // Parcels reach the listeners before the advisory of the end.
    if (parcels.count != 0) {
        held.circuit->isDelivering = true;
        held.leave();
        const pelmoStatus status =
            Transport_DeliverOfPeer(held.held.get(), {parcels.messages, parcels.count});
        held.enter();
        held.circuit->isDelivering = false;
        Cond_Broadcast(&held.circuit->changed);
        if (status != kStatusSuccess) ending = Ending::kInvalidMessage;
    }
    endByLocked(held.circuit, ending);
}

void vcUnreachable(uint32_t id) {
    HeldCircuit held;
    if (!held.find(id)) return;
    // The goodbye may be on its way through another thread.
    while (held.circuit->vcState == CircuitState::kConnected &&
           Event_RunningDispatches(held.circuit->controlListener) != 0) {
        awaitOthersLocked(held.circuit);
    }
    if (held.circuit->vcState != CircuitState::kConnected || held.circuit->graceTimer != kNoId)
        return;
    const bool isGraced =
        isDirectLocked(held.circuit) &&
        pelmoEvent_CreateTimer(&held.circuit->graceTimer, kTimerQueueId, onGraceOver,
                               kMostFlushSeconds, idToItem(id)) == kStatusSuccess;
    if (!isGraced) endLocked(held.circuit, kGone, false);
}

void vcGraceOver(uint32_t id) {
    HeldCircuit held;
    if (!held.find(id)) return;
    if (held.circuit->vcState == CircuitState::kConnected) endLocked(held.circuit, kGone, false);
}

pelmoStatus vcDeliver(Transport* transport, pelmoMsg* message) {
    return Transport_DeliverOfPeer(transport, {&message, 1});
}

// The checker doesn't know that the circuit's transport is this one.
void vcDisconnect(Transport* transport, const char* reason) PELMO_UNCHECKED_LOCKING {
    endLocked(transport->circuit, reason, true);
}

pelmoStatus vcCreateAccept(uint32_t* outCircuit,
                           const char** outConnectSubject,
                           uint32_t underlying) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "vcCreateAccept(%p, %p, %u)", tracePointer(outCircuit),
              tracePointer(outConnectSubject), underlying);
    if (outCircuit == nullptr || outConnectSubject == nullptr) return kStatusInvalidArgument;
    HeldCircuit made;
    const pelmoStatus status = create(&made, CircuitEnd::kAccepting, nullptr, underlying);
    if (status != kStatusSuccess) return status;
    *outCircuit = made.held->header.id;
    *outConnectSubject = made.circuit->connectSubject;
    return kStatusSuccess;
}

pelmoStatus vcCreateConnect(uint32_t* outCircuit, const char* connectSubject, uint32_t underlying) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "vcCreateConnect(%p, \"%s\", %u)", tracePointer(outCircuit),
              traceText(connectSubject), underlying);
    if (outCircuit == nullptr || connectSubject == nullptr) return kStatusInvalidArgument;
    HeldCircuit made;
    const pelmoStatus status = create(&made, CircuitEnd::kConnecting, connectSubject, underlying);
    if (status != kStatusSuccess) return status;
    *outCircuit = made.held->header.id;
    return kStatusSuccess;
}

pelmoStatus vcWaitForConnection(uint32_t circuit, double seconds) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    traceLine(kTraceTransport, "vcWaitForConnection(%u, %f)", circuit, seconds);
    const double deadline = seconds < 0 ? -1 : clockSteadySeconds() + seconds;
    HeldCircuit held;
    if (!held.find(circuit)) return kStatusInvalidTransport;
    if (held.circuit->vcState == CircuitState::kDisconnected) return kStatusCircuitNotConnected;
    bool isInTime = true;
    while (isInTime && held.circuit->vcState == CircuitState::kWaiting) {
        isInTime = awaitChange(held.circuit, deadline);
    }
    const bool isChanged = isInTime || held.circuit->vcState == CircuitState::kConnected;
    return isChanged ? kStatusSuccess : kStatusTimeout;
}
