// A reliable endpoint: a UDP port that carries messages straight from process to process, whole, in
// order and once, or says that it couldn't. The protocol is in endpoint_core.h; this module joins
// it to a socket, a timer, a lock and the callbacks.
//
// Ownership: the endpoint belongs to its maker, who closes it and with that gives the first
// reference back; the last one frees it. Who calls it while another thread may close it holds a
// reference of its own.
//
// Threads: any. The endpoint's lock (rank kEndpoint) guards the core, and no callback runs under
// it. Messages come on the IO thread, losses on the thread that found them. A sender waits while
// 2733 packets wait for the peer's window, which is 4 MB of full ones, unless it is the IO or the
// timer thread or is marked by NoWait, or the library closes.
//
// The socket is read on queue 5; one timer on queue 2 serves all deadlines, and fires only
// while there is one. What one read brings is answered together, in one lock hold and one send,
// and no send is made with the lock held.
//
// Units and byte order: ports are numbers; addresses are in network order where it says so.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/transport/reliable/endpoint_core.h"

struct Dpa;
struct pelmoMsg;
struct ReliableEndpoint;

// The address is in network order. The list is freed after the call; the messages are the
// callee's.
using ReliableDataCallback = void (*)(uint32_t peerAddress, Dpa* messages, uintptr_t closure);

// `inbound`: data from the peer can't be delivered; else data to it is lost. Address and port are
// numbers.
using ReliableLossCallback = void (*)(
    bool inbound, uint32_t peerAddress, uint16_t peerPort, uint64_t bytes, uintptr_t closure);

// Address in network order, 0 for all of this host's; port 0 means any. kStatusSocketLimit where
// the system gives no socket, kStatusPortInUse where it can't be bound, kStatusNoMemory, and the
// statuses of pelmoEvent_CreateIO.
[[nodiscard]] pelmoStatus ReliableEndpoint_Open(ReliableEndpoint** out,
                                                uint32_t address,
                                                uint16_t port,
                                                ReliableDataCallback onData,
                                                ReliableLossCallback onLoss,
                                                uintptr_t closure);

void ReliableEndpoint_Retain(ReliableEndpoint* endpoint);
void ReliableEndpoint_Release(ReliableEndpoint* endpoint);

[[nodiscard]] uint16_t ReliableEndpoint_Port(const ReliableEndpoint* endpoint);
void ReliableEndpoint_SetClosure(ReliableEndpoint* endpoint, uintptr_t closure);
[[nodiscard]] EndpointCounts ReliableEndpoint_Counts(ReliableEndpoint* endpoint);

// Messages are borrowed, and 0 means that they are queued. Peer address in network order.
// kStatusInvalidTransport for an endpoint that is closing, kStatusNoMemory, kStatusInvalidSize,
// kStatusDeliveryFailed where the connection ended while the sender waited.
[[nodiscard]] pelmoStatus ReliableEndpoint_Send(ReliableEndpoint* endpoint,
                                                uint32_t peerAddress,
                                                uint16_t peerPort,
                                                std::span<pelmoMsg* const> messages,
                                                bool delaySmall);

// What was sent leaves first: the call waits as long as peers acknowledge some of it, gives up a
// peer that hasn't for kMostFlushSeconds, and everything at the deadline, on the steady clock; one
// that has passed waits for nothing. Senders that wait may continue meanwhile; those that are left
// then end with kStatusDeliveryFailed. `outUnsent` may be null; else it gets what no peer has
// acknowledged, of which the losses were reported as well. Afterwards no callback begins any more,
// except for a loss found by a send in progress, and what is left to report of the callback
// that made this call. It needs neither the IO nor the timer thread, so that the library's close
// may call it as well. False where it was closed already, and the reference stays.
inline constexpr double kMostFlushSeconds = 11;
bool ReliableEndpoint_Close(ReliableEndpoint* endpoint, double deadline, EndpointUnsent* outUnsent);
