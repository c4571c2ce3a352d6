// Virtual circuits: a transport over another one, the underlying transport, that joins exactly two
// ends. What one end sends reaches the other in order or not at all: each message is numbered, and
// a number that is missing ends the circuit, as does a peer that is silent for 110 seconds. Nothing
// is sent again.
//
//     accepting end                                connecting end
//     vcCreateAccept(&circuit, &text, under)
//     ... hands the text to the other end ...      vcCreateConnect(&circuit, text, under)
//     vcWaitForConnection(circuit, 10)             vcWaitForConnection(circuit, 10)
//
// A circuit is then used by the calls of transports: messages are sent on it, listeners and inboxes
// made, requests answered. It ends by pelmoTransport_Destroy, which notifies the peer. A circuit
// has no time limit for its handshake, and a request that is lost isn't sent again: the application
// decides how long to wait, and then starts again with a new circuit.
//
// Advisories come to listeners on the circuit itself: "_PM.INFO.SYSTEM.VC.CONNECTED";
// "_PM.INFO.SYSTEM.VC.DISCONNECTED" when the peer has ended it in order; and
// "_PM.ERROR.SYSTEM.VC.DISCONNECTED" with "remote timeout", "data loss", "invalid message", "remote
// unreachable" if the peer's transport is gone without that, or "out of memory" in ADV_DESC.
// What a peer sends on "_PM" subjects isn't delivered. The circuit stays until it is destroyed, and
// sends answer kStatusCircuitNotConnected. A send that failed while connected has used up its
// number: the next one ends the circuit.
//
// Ownership: the circuit belongs to its creator, the connect subject to the circuit: it is valid
// until that is destroyed. A circuit doesn't keep the underlying transport, which may be destroyed
// first.
//
// Failure: kStatusNotInitialized on a closed library, kStatusInvalidArgument for a null output or
// text, kStatusInvalidTransport for an underlying transport that there isn't or that is a circuit
// itself, kStatusInvalidSubject for a connect subject that doesn't parse, what a send on the
// underlying transport answers, kStatusNoMemory. Outputs are written only on success.
//
// Threads: any. Messages of circuits are taken in on the library's work queue, so a thread
// that dispatches that queue must not wait for a connection. A queue's hook must not send on a
// circuit.

#pragma once

#include <stdint.h>

#include "../../base/status.h"

#ifdef __cplusplus
extern "C" {
#endif

// Waits for a peer, which reaches it by the text.
PELMO_NODISCARD pelmoStatus vcCreateAccept(uint32_t* outCircuit,
                                           const char** outConnectSubject,
                                           uint32_t underlying);

// Asks the accepting end of that text. It needn't have answered when the call returns.
PELMO_NODISCARD pelmoStatus vcCreateConnect(uint32_t* outCircuit,
                                            const char* connectSubject,
                                            uint32_t underlying);

// Seconds below 0 mean no limit. kStatusInvalidTransport for an id that is no live circuit;
// kStatusTimeout; kStatusCircuitNotConnected if the circuit has ended already. One that ends
// during the wait returns success, which the next send will show.
PELMO_NODISCARD pelmoStatus vcWaitForConnection(uint32_t circuit, double seconds);

#ifdef __cplusplus
}
#endif
