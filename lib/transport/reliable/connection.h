// One connection of a reliable endpoint: its record, and what packets, ticks and sends do to it.
//
//     connection.cc            creation, tables, end, reports
//     connection_open.cc       SYN, SYN-ACK, reopening
//     connection_packets.cc    all other packets, by the state table
//     connection_send.cc       what is sent
//     connection_timers.cc     ticks and deadlines
//
// `sndUna`, `sndNxt` and `sndLimit` are in the send window; `rcvNxt` and `rcvEdge` bound what may
// come. SYN and FIN take a number each, and neither is stored: while one is in flight, which the
// state says, it has the number `sndNxt` - 1 and nothing has been sent after it. A SYN-ACK that
// crossed the peer's takes one more number, `crossSeq`, and messages may follow it before it is
// acknowledged. So the send
// buffer holds messages alone, and a connection with an empty one has nothing to lose.
//
// Timers are values. The retransmission, the idle and the send-wait timer are periodic: a tick
// falls on base + k * interval, whether the timer had anything to do before or not. A deadline is
// made only for a tick that has something to do.
//
// A connection that has ended (`isClosed`) is in no table any more. Its record stays until the call
// that ended it is over, and until the last sender that waits has let go.
//
// Ownership: the endpoint owns its connections.
//
// Threads: as the endpoint.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/transport/reliable/deadline_heap.h"
#include "lib/transport/reliable/endpoint_record.h"
#include "lib/transport/reliable/packet.h"
#include "lib/transport/reliable/peer.h"
#include "lib/transport/reliable/reassembly.h"
#include "lib/transport/reliable/send_buffer.h"
#include "lib/transport/reliable/send_window.h"
#include "lib/transport/reliable/state_table.h"

struct pelmoMsg;

struct ReliableConnection {
    Deadline deadline;  // first: its address is the record's

    // Constant after creation
    EndpointCore* core;
    double createTime;

    // Whom it leads to
    PeerAddress peerAddress;  // where packets go
    uint64_t peerKeys[2];   // in `byPeer`, which borrows them; the second is of a peer that answers
    uint32_t peerKeyCount;  // from another address than the one aimed at
    uint64_t idKey;         // in `byId`, which borrows it
    bool isInById;
    uint32_t localId;
    uint32_t remoteId;  // 0 until known

    // State
    ConnectionState state;
    bool isIdle;     // nothing came since the last idle tick
    bool isRunning;  // false: neither packets nor ticks do anything any more
    bool isClosed;
    bool isFlushing;  // a closing endpoint waits for it
    bool isHalfOpen;  // in the list of those

    // Data
    SendWindow window;
    SendBuffer send;
    uint64_t rcvNxt;   // the next number expected
    uint64_t rcvEdge;  // the first one beyond the receive window
    uint64_t finSeq;   // of a FIN that came before missing data; 0 for none
    uint64_t
        crossSeq;  // of our SYN-ACK that isn't acknowledged, where both ends opened; 0 for none
    Reassembly reassembly;
    bool tookAfterFin;  // the peer still sends after our FIN

    // Timers
    double rto;              // interval of the retransmission timer
    double retransmitBase;   // when it was reset last
    bool isRetransmitArmed;  // the next tick resends
    double idleBase;
    double sendWaitAt, retransmitAt, idleAt, timeWaitAt;  // kNever where there is nothing to do

    // Senders that wait
    uint32_t holders;
    void* waiter;

    // Lists of the endpoint
    ReliableConnection *next, *previous;
    ReliableConnection *nextHalfOpen, *previousHalfOpen;
};

// Life

// In the state kListen: a SYN or a send opens it. Null when memory ran out.
[[nodiscard]] ReliableConnection* Connection_Create(EndpointCore* core,
                                                    double now,
                                                    const PeerAddress& peer);

[[nodiscard]] ReliableConnection* connectionFind(const EndpointCore* core, const PeerAddress& peer);

// One call of the endpoint's owner: when it is, and where what it finds goes.
struct CoreCall {
    double now;
    EndpointOutput* out;
};

enum class EndReason : uint8_t {
    kLost,         // what isn't delivered is reported, both ways
    kApplication,  // only what this side sent
    kUnused,       // nothing is
};
void connectionTearDown(ReliableConnection* connection, EndReason reason, EndpointOutput* out);

// At the end of each call about a connection: wakes senders; frees a connection that has ended, or
// brings its deadline up to date.
void connectionSettle(ReliableConnection* connection, double now);

// Packets. `source` is where the packet came from.

void connectionTakeSyn(ReliableConnection* connection,
                       const CoreCall& call,
                       const PeerAddress& source,
                       const Packet& packet);
void connectionTakeSynAck(ReliableConnection* connection,
                          const CoreCall& call,
                          const PeerAddress& source,
                          const Packet& packet);

// A SYN-ACK for a connection that has opened by other packets already: where both ends opened, it
// has a number of its own, which what was sent after it waits for. The caller has found the
// connection by the packet's source.
void connectionTakeLateSynAck(ReliableConnection* connection,
                              const CoreCall& call,
                              const PeerAddress& source,
                              const Packet& packet);
void connectionTakePacket(ReliableConnection* connection,
                          const CoreCall& call,
                          const PeerAddress& source,
                          const Packet& packet);

// The answer to a packet of no connection, or of another incarnation.
void packetAnswerReset(EndpointCore* core, const PeerAddress& to, const PacketHeader& header);

// Sending

// Packs messages and sends what the window allows. Opens a connection that is new or closing. A
// failure leaves the connection as it was, but for one that couldn't be opened: that one has ended.
[[nodiscard]] pelmoStatus connectionSend(ReliableConnection* connection,
                                         const CoreCall& call,
                                         std::span<pelmoMsg* const> messages,
                                         bool delaySmall);

// Time

void connectionTick(ReliableConnection* connection, const CoreCall& call);

// Closing

// What waits is to leave, and the endpoint waits for it.
void connectionBeginFlush(ReliableConnection* connection, double now);
void connectionCloseEnd(ReliableConnection* connection, EndpointOutput* out);
