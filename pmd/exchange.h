// The exchange: what the daemon does with the messages of its clients. It starts sessions, keeps
// the interest, and routes; the results leave through a table of functions. It knows no
// connection, no lock and no clock.
//
// A peer is a client as the exchange sees it: from exchangeEnter, when its queue exists, to
// exchangeLeave. Its first message has to be a start message.
//
// A batch is the messages of one read, in order. Consecutive messages with the same receivers
// make a run, which is delivered as one: so a stream on a few subjects costs each
// receiver a few steps a batch, however many messages it has.
//
// Ownership: peers are their owner's and stay in place from enter to leave; messages are borrowed
// for the call, runs for the call of a function of the table.
//
// Failure: when memory runs out, a message isn't delivered and is counted as lost; an interest
// that can't be kept, or a start message that can't be answered, is the end of the peer.
//
// Threads: no lock; the owner serialises all calls. Functions of the table don't call back.

#pragma once

#include <cstdint>
#include <span>

#include "pmd/registry/session.h"
#include "pmd/router.h"

struct pelmoMsg;

using MessageRun = std::span<pelmoMsg* const>;

struct ExchangeOps {
    // A run that is routed: its address identifies it within the batch.
    void (*deliver)(void* closure, Member* to, MessageRun run);

    // A message of the daemon's own.
    void (*tell)(void* closure, Member* to, pelmoMsg* message);

    // All that is routed, whether anyone listens or not; null if it isn't wanted.
    void (*publish)(void* closure, MessageRun run);

    // The peer has left already; its owner ends the connection.
    void (*cutOff)(void* closure, Member* member, const char* why);
};

struct Peer {
    Member member;  // its owner is the peer's

    // The exchange's.
    uint32_t serial;      // among all peers of the daemon
    uint32_t starts;      // start messages that were right
    uint32_t address;     // of the client, network order
    uint16_t clientId;    // 0 until it has started
    bool loggedReserved;  // a message on a reserved subject was logged
    bool loggedInbox;     // and of an interest in an inbox of another
    bool loggedInterest;  // and of an interest too many
    bool loggedSend;      // and of a subject that matches too much
    StartMessage start;   // the last one; its session may be empty
};

struct Exchange {
    Router router;
    ClientIds ids;
    SessionGround ground;
    ExchangeOps ops;
    void* closure;
    uint32_t nextSerial;

    // Counts.
    uint64_t routed;     // messages, once each
    uint64_t delivered;  // messages, once for each receiver
    uint64_t lost;       // for lack of memory
    uint64_t ignored;    // without a meaning here, or not permitted

    // Of the run that is being gathered.
    const uint8_t* runSubject;  // of its last message
    Member** receivers;
    uint32_t receiverCount, receiverCapacity;
};

// False when memory runs out.
[[nodiscard]] bool exchangeInit(Exchange* exchange,
                                const SessionGround& ground,
                                const ExchangeOps& ops,
                                void* closure);

// All peers have left.
void exchangeFree(Exchange* exchange);

// `owner` is the member's, for the functions of the table; `address` is the client's.
void exchangeEnter(Exchange* exchange, Peer* peer, void* owner, uint32_t address);
void exchangeLeave(Exchange* exchange, Peer* peer);

// `from`, which has a session, leaves; `to` enters in its place without an owner or any interest,
// and keeps session and client id taken. False, and nothing has changed, without memory.
[[nodiscard]] bool exchangePark(Exchange* exchange, Peer* from, Peer* to);

// Null, or why the peer is to be cut off: it breaks the rules, and what came after that in the
// batch is dropped. Constant text, for a log line that begins with the client.
[[nodiscard]] const char* exchangeTake(Exchange* exchange, Peer* peer, MessageRun batch);

[[nodiscard]] inline bool peerHasStarted(const Peer* peer) {
    return peer->clientId != 0;
}

// Sends an advisory to the members of the peer's realm that listen to its subject:
// "_PM.KIND.SYSTEM.NAME.SESSION".
struct Advisory {
    const char* kind;
    const char* name;
    const char* description;
};
void exchangeAdvise(Exchange* exchange, const Peer* about, const Advisory& advisory);
