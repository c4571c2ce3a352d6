// The reliable packet layer without its socket: an endpoint with its connections, one for each
// peer. Datagrams, ticks and `now` come in; datagrams, messages, losses and deadlines come out.
//
//     packet.h                        bytes <-> header, option, payload
//     send_buffer.h, send_window.h    messages -> packets; what may leave when
//     reassembly.h                    packets -> messages in order
//     state_table.h                   the states of a connection, one row a step
//     connection.h                    one connection: packets, ticks, opening and closing
//     endpoint_record.h               the endpoint's record, and what its calls give
//     endpoint_core.h                 who the packet is for; opening packets; bounds
//     reliable_endpoint.h             socket, timers, lock, callbacks
//
// What was sent arrives once and in order, or its loss is reported at one end. Connections open
// with three packets and close with four, as TCP's do (RFC 9293), in numbers of packets.
//
//     resent after    1, 3, 7, 15, 31, 63 seconds without an answer; given up at 95
//     flushing        1, 3, 7; given up at 11
//     idle            closed 300 to 600 seconds after the last packet
//
// The core calls only its sink, which may not call back. What the owner has to do after the
// call, such as running the application's callbacks, is in EndpointOutput.
//
// Bounds, against those who make packets up: kMostHalfOpen connections that a peer has opened and
// not yet confirmed, of which the oldest goes first; the reassembly's (reassembly.h). Reaching one
// is reported in EndpointOutput.
//
// Threads: no lock, no socket, no clock; the owner serialises all calls.
//
// Units: seconds since 1970, by a clock that never steps back.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/transport/reliable/endpoint_record.h"

struct pelmoMsg;

// kStatusNoMemory.
[[nodiscard]] pelmoStatus endpointInit(EndpointCore* core, const EndpointSink& sink);

// All connections have been closed, or are dropped here without a word to their peers.
void endpointFree(EndpointCore* core);

void endpointTakeDatagram(EndpointCore* core,
                          double now,
                          const PeerAddress& source,
                          std::span<const uint8_t> datagram,
                          EndpointOutput* out);

// Messages are borrowed. kStatusInvalidTransport for an endpoint that is closing, kStatusNoMemory,
// kStatusInvalidSize for a message above kMostReliableMessageBytes. `outConnection` is held where
// the sender has to wait until connectionHasRoom; otherwise null.
[[nodiscard]] pelmoStatus endpointSend(EndpointCore* core,
                                       double now,
                                       const PeerAddress& peer,
                                       std::span<pelmoMsg* const> messages,
                                       bool delaySmall,
                                       ReliableConnection** outConnection,
                                       EndpointOutput* out);

// When endpointTick has something to do; kNever.
[[nodiscard]] double endpointNextDeadline(const EndpointCore* core);

// Serves one connection whose deadline has come; false when there was none.
bool endpointTick(EndpointCore* core, double now, EndpointOutput* out);

// Closing: no send is taken any more. With `flush` the owner then waits, for datagrams, ticks and
// EndpointOutput::flushAdvanced, until endpointIsFlushed; then endpointCloseEnd resets what is
// left, as far as the output has a place for each loss. False once there is nothing left.
void endpointCloseBegin(EndpointCore* core, double now, bool flush, EndpointOutput* out);
[[nodiscard]] bool endpointIsFlushed(const EndpointCore* core);
[[nodiscard]] EndpointUnsent endpointUnsent(const EndpointCore* core);
bool endpointCloseEnd(EndpointCore* core, double now, EndpointOutput* out);

// For blocked senders. The record stays until the last holder lets go.
[[nodiscard]] bool connectionHasRoom(const ReliableConnection* connection);
[[nodiscard]] bool connectionIsClosed(const ReliableConnection* connection);
[[nodiscard]] void*& connectionWaiter(ReliableConnection* connection);  // null at first
void connectionLetGo(EndpointCore* core, ReliableConnection* connection);
