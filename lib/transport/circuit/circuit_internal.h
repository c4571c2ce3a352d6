// The circuit's record, and what its sources and the transports call. The calls for applications
// are in lib/transport/circuit/circuit.h.
//
//     circuit_message.h      the five messages, built and read
//     circuit_handshake.h    which message begins the circuit
//     circuit_count.h        numbers, heartbeats, silence
//
// Locks: the object lock of the circuit's transport guards all that changes. With it held, events
// are made and ended on the transport beneath, which has its own; nothing beneath ever asks for a
// circuit's. Whatever is sent, an advisory too, leaves with the lock released, since a delivery
// within the process may run the hook of a queue.
//
// Turns: messages leave in the order of their numbers, and yet no sender keeps the lock while the
// transport beneath makes it wait for room: the timer thread and the work queue would wait with it.
// A sender takes the turn, wraps, and sends with the lock released; others wait for the turn.
// Heartbeats and goodbyes never wait. A heartbeat that finds the turn taken is due again at the
// next tick, and what is being sent shows the peer that we are alive; a goodbye leaves at the end
// of the turn.
//
// Ends: only a goodbye ends a circuit in order. When the daemon reports that the peer is gone, what
// the peer sent by the daemon has come; what it sent straight may still be under way, so the
// circuit to a peer that is reached directly stays for as long as the peer's flush may take.

#pragma once

#include <pthread.h>

#include <cstdint>
#include <span>

#include "lib/base/cond.h"
#include "lib/transport/circuit/circuit.h"
#include "lib/transport/circuit/circuit_count.h"
#include "lib/transport/circuit/circuit_handshake.h"
#include "lib/transport/transport_internal.h"

struct VirtualCircuit {
    // Constant after creation.
    Transport* transport;
    CircuitEnd end;
    char* connectSubject;                    // heap text; null at the connecting end
    uint8_t controlInbox[kSubjectMaxBytes];  // packed

    Cond changed;  // broadcast at each change of state, and at the end of a turn that is waited for

    CircuitState vcState PELMO_GUARDED_BY(transport->header.lock);
    CircuitCount count PELMO_GUARDED_BY(transport->header.lock);
    bool isLegacyPeer PELMO_GUARDED_BY(transport->header.lock);
    uint8_t peerSubject[kSubjectMaxBytes] PELMO_GUARDED_BY(transport->header.lock);  // packed

    // Events; kNoId: none.
    uint32_t controlListener PELMO_GUARDED_BY(transport->header.lock);
    uint32_t handshakeListener PELMO_GUARDED_BY(transport->header.lock);    // while waiting
    uint32_t heartbeatTimer PELMO_GUARDED_BY(transport->header.lock);       // while connected
    uint32_t unreachableListener PELMO_GUARDED_BY(transport->header.lock);  // while connected
    uint32_t graceTimer
        PELMO_GUARDED_BY(transport->header.lock);  // the daemon reported the peer's end

    // What came in: one delivery at a time, in the order of the numbers, however many threads
    // dispatch the work queue.
    bool isDelivering PELMO_GUARDED_BY(transport->header.lock);
    uint32_t early PELMO_GUARDED_BY(transport->header.lock);  // batches that wait for others at...
    uint64_t earlyAt PELMO_GUARDED_BY(transport->header.lock);  // ...this count.recvSeq
    bool hasDropped PELMO_GUARDED_BY(transport->header.lock);   // a message of the peer; was logged

    // The turn to send. A hook of the transport beneath may send on the circuit again.
    uint32_t turns
        PELMO_GUARDED_BY(transport->header.lock);  // that `turnThread` has taken; 0: none
    pthread_t turnThread PELMO_GUARDED_BY(transport->header.lock);
    uint32_t turnsAwaited PELMO_GUARDED_BY(transport->header.lock);  // by other threads
    bool owesGoodbye PELMO_GUARDED_BY(transport->header.lock);
};

// Fills circuitOps. Called before the first open.
void circuitAttach();

// What the table's functions are; those with a transport want its object lock held once, vcDeliver
// none.

// Sends, with the lock released meanwhile. kStatusCircuitNotConnected, kStatusInvalidSubject,
// kStatusCorruptMessage, kStatusNoMemory, what the transport beneath answers.
[[nodiscard]] pelmoStatus vcSend(Transport* transport, pelmoMsg* message)
    PELMO_REQUIRES(transport->header.lock);

// The same for many: when one can't be wrapped, none is sent.
[[nodiscard]] pelmoStatus vcSendVector(Transport* transport,
                                       std::span<pelmoMsg* const> messages,
                                       uint32_t* taken) PELMO_REQUIRES(transport->header.lock);

// The envelope, which the caller releases, has the next number. A failure gives none away.
[[nodiscard]] pelmoStatus vcWrap(Transport* transport, pelmoMsg* message, pelmoMsg** outEnvelope)
    PELMO_REQUIRES(transport->header.lock);

// Delivers to the transport's listeners and takes ownership of the message. The caller holds a
// reference. kStatusNoMemory if the listeners didn't get it.
[[nodiscard]] pelmoStatus vcDeliver(Transport* transport, pelmoMsg* message);

// Ends the circuit and notifies the peer; no reason for an end in order. Nothing happens to one
// that has ended.
void vcDisconnect(Transport* transport, const char* reason) PELMO_REQUIRES(transport->header.lock);

// One tick of the timer, and messages of the peer, at most kMostBatchMessages: what the events
// call, and the daemon's report that the peer's transport is gone with what follows it.
// `circuit` is an id.
void vcTick(uint32_t circuit);
void vcUnreachable(uint32_t circuit);
void vcGraceOver(uint32_t circuit);
void vcControl(uint32_t circuit, std::span<pelmoMsg* const> messages);

// Between circuit.cc and circuit_send.cc

// All that follow release the lock meanwhile, so that the circuit may have ended after them.

// A sign with the next number. Never waits. kStatusTimeout while another message is being sent.
[[nodiscard]] pelmoStatus circuitSendSign(VirtualCircuit* circuit, CircuitKind kind)
    PELMO_REQUIRES(circuit->transport->header.lock);

// The answer to an offer. It has no number, but takes a turn: what is sent meanwhile leaves after
// it. The caller is the only one that sends.
[[nodiscard]] pelmoStatus circuitSendAcceptance(VirtualCircuit* circuit, const char* to)
    PELMO_REQUIRES(circuit->transport->header.lock);

// To the circuit's own listeners. A failure can't be reported to anything else.
void circuitReport(VirtualCircuit* circuit,
                   const char* advisoryClass,
                   const char* name,
                   const char* description) PELMO_REQUIRES(circuit->transport->header.lock);
