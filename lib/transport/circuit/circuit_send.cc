// What leaves a circuit: envelopes, one sender's after the other's, and signs.

#include <utility>

#include "lib/msg/message_internal.h"
#include "lib/runtime/no_wait.h"
#include "lib/transport/circuit/circuit_internal.h"
#include "lib/transport/held_messages.h"

namespace {

constexpr const char* kSource = "SYSTEM";

// The circuit of a transport whose lock is held; the checker doesn't know that its transport is
// this one.
void lockIsHeld(const VirtualCircuit* circuit) PELMO_ASSERTS(circuit->transport->header.lock) {
    static_cast<void>(circuit);
}

// From here to the end of the scope no other thread sends. The lock is held at both ends.
class Turn {
  public:
    explicit Turn(VirtualCircuit* circuit) PELMO_REQUIRES(circuit->transport->header.lock)
        : circuit_(circuit) {
        const pthread_t self = pthread_self();
        while (circuit->turns != 0 && pthread_equal(circuit->turnThread, self) == 0) {
            ++circuit->turnsAwaited;
            Id_Wait(&circuit->transport->header, &circuit->changed);
            --circuit->turnsAwaited;
        }
        circuit->turnThread = self;
        ++circuit->turns;
    }
    ~Turn() {
        lockIsHeld(circuit_);
        if (--circuit_->turns != 0) return;
        if (std::exchange(circuit_->owesGoodbye, false)) {
            (void)circuitSendSign(circuit_, CircuitKind::kGoodbye);
        }
        if (circuit_->turnsAwaited != 0) Cond_Broadcast(&circuit_->changed);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    VirtualCircuit* circuit_;
};

// With the lock released.
pelmoStatus sendBeneath(Transport* transport, pelmoMsg* message)
    PELMO_REQUIRES(transport->header.lock) {
    Id_Leave(&transport->header);
    const pelmoStatus status = transportSend(transport->underlying, message);
    Id_Enter(&transport->header);
    return status;
}

}  // namespace

pelmoStatus circuitSendSign(VirtualCircuit* circuit, CircuitKind kind) {
    if (circuit->turns != 0) return kStatusTimeout;
    const Turn turn(circuit);
    const NoWait noWait;
    pelmoMsg* made = nullptr;
    const pelmoStatus status =
        circuitBuildSign(&made, kind, circuit->peerSubject, circuit->count.sendSeq + 1);
    if (status != kStatusSuccess) return status;
    const HeldMessage sign(made);
    ++circuit->count.sendSeq;
    return sendBeneath(circuit->transport, sign.get());
}

pelmoStatus circuitSendAcceptance(VirtualCircuit* circuit, const char* to) {
    const Turn turn(circuit);
    pelmoMsg* made = nullptr;
    const pelmoStatus status = circuitBuildAcceptance(&made, to, circuit->controlInbox);
    if (status != kStatusSuccess) return status;
    const HeldMessage acceptance(made);
    return sendBeneath(circuit->transport, acceptance.get());
}

void circuitReport(VirtualCircuit* circuit,
                   const char* advisoryClass,
                   const char* name,
                   const char* description) PELMO_UNCHECKED_LOCKING {
    Transport* const transport = circuit->transport;
    Id_Leave(&transport->header);
    (void)advisorySend(transport->header.id, advisoryClass, kSource, name, description);
    Id_Enter(&transport->header);
}

pelmoStatus vcWrap(Transport* transport, pelmoMsg* message, pelmoMsg** outEnvelope) {
    VirtualCircuit* const circuit = transport->circuit;
    lockIsHeld(circuit);
    if (circuit->vcState != CircuitState::kConnected) return kStatusCircuitNotConnected;
    HeldMessage held;
    CircuitParcel parcel;
    pelmoStatus status = circuitPack(message, &held, &parcel);
    if (status != kStatusSuccess) return status;
    status = circuitBuildData(outEnvelope, circuit->peerSubject, parcel, circuit->count.sendSeq + 1,
                              circuit->isLegacyPeer);
    if (status == kStatusSuccess) ++circuit->count.sendSeq;
    return status;
}

pelmoStatus vcSend(Transport* transport, pelmoMsg* message) {
    lockIsHeld(transport->circuit);
    const Turn turn(transport->circuit);
    pelmoMsg* made = nullptr;
    const pelmoStatus status = vcWrap(transport, message, &made);
    if (status != kStatusSuccess) return status;
    const HeldMessage envelope(made);
    return sendBeneath(transport, envelope.get());
}

pelmoStatus vcSendVector(Transport* transport,
                         std::span<pelmoMsg* const> messages,
                         uint32_t* taken) {
    *taken = 0;
    VirtualCircuit* const circuit = transport->circuit;
    lockIsHeld(circuit);
    const Turn turn(circuit);
    HeldMessages envelopes;
    if (!envelopes.makeRoom(messages.size())) return kStatusNoMemory;
    const uint64_t sendSeqBefore = circuit->count.sendSeq;
    for (pelmoMsg* message : messages) {
        pelmoMsg* made = nullptr;
        const pelmoStatus status = vcWrap(transport, message, &made);
        if (status != kStatusSuccess) {
            // Neither lock nor turn was released, so no other thread has seen these numbers.
            circuit->count.sendSeq = sendSeqBefore;
            return status;
        }
        envelopes.add(HeldMessage(made));
    }
    Id_Leave(&transport->header);
    const pelmoStatus status = transportSendVector(transport->underlying, envelopes.all(), taken);
    Id_Enter(&transport->header);
    return status;
}
