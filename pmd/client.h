// A client's connection: first a socket that shakes hands, then a queue (lib/transport/ipq/ipq.h).
// It moves bytes and messages and decides nothing; it reports them through a table of
// functions.
//
//     shaking hands --> open --> closed
//          '-------------------'
//
// Ownership: a record belongs to its connection. It stays in place until the functions of sockets
// and queue can't reach it any more, some time after clientClose; then it frees itself. Its maker
// forgets it before the close.
//
// Threads: `daemonLock` is held for each call, and taken around all that a record does by itself.
// The functions of the table run on the IO thread or the timer thread with that lock held. All but
// `opened` may close the client that they are called for.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/annotate.h"
#include "lib/base/lock.h"
#include "pmd/exchange.h"
#include "pmd/pacing.h"
#include "pmd/server_handshake.h"

struct Ipq;
struct Socket;

// Guards the daemon: its clients, the exchange, and all that follows from them.
extern constinit Lock daemonLock;

struct Client {
    // Constant.
    uint32_t address;  // of the peer, network order
    uint16_t port;

    Peer peer;  // the exchange's; its owner is the client

    // The connection's.
    Socket* socket;  // null once the queue exists
    Ipq* ipq;        // null until then
    bool isClosed;
    ServerHandshake handshake;

    // The server's.
    double deadline;      // of all that comes before its session; 0 once that is there
    const char* fault;    // why it is to be cut off; null while it isn't
    const char* endName;  // of the advisory that reports the cut-off to the others; null: none
    bool isTouched;       // it has got messages of the batch under way
    bool isBehind;        // much waits for it already
    bool isStalled;       // it takes too little for senders to wait for it
    Client* pacer;        // nothing is read from this client until that one has caught up
    Pace pace;
    bool isOver;        // more waits for it than its backlog may hold
    uint64_t fedBatch;  // the last one that brought it more meanwhile
    Excess excess;
    Client *next, *previous, *nextTouched, *nextDoomed, *nextPaced, *nextOver;
};

// The reason for a client that left by itself; it isn't logged. The queue itself logs a malformed
// stream.
inline constexpr const char* kClientGone = "";

inline constexpr uint32_t kMostStartBytes = 64u << 10;

struct ClientOps {
    // Called with the session still to be started: its first message may have kMostStartBytes.
    void (*opened)(Client* client);

    // Borrowed for the call.
    void (*received)(Client* client, MessageRun messages);

    // More has come of a message that isn't whole.
    void (*grown)(Client* client);

    // The connection is of no use any more. Constant text, for a line that begins with the client.
    void (*failed)(Client* client, const char* why);
};

// Called before the first client.
void clientSetOps(const ClientOps& ops);

// Takes over an accepted socket and greets. Null, and the socket is closed, if memory runs out or
// the peer has gone already.
[[nodiscard]] Client* clientMake(Socket* socket) PELMO_REQUIRES(daemonLock);

void clientClose(Client* client) PELMO_REQUIRES(daemonLock);

// Has the peer said that it ends, as one that closes in order does?
[[nodiscard]] bool clientSaidGoodbye(const Client* client) PELMO_REQUIRES(daemonLock);

// What waits for it, and what it has taken.
[[nodiscard]] Backlog clientBacklog(const Client* client) PELMO_REQUIRES(daemonLock);

// Memory that its queue keeps, both ways.
[[nodiscard]] uint64_t clientMemory(const Client* client) PELMO_REQUIRES(daemonLock);

// Records that aren't freed yet.
[[nodiscard]] uint32_t clientsAlive();

// "127.0.0.1:41234", and the user where one is known, for the log. The text is valid until the next
// call.
[[nodiscard]] const char* clientText(const Client* client) PELMO_REQUIRES(daemonLock);
