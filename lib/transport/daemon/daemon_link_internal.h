// The link's record, and what its sources call of each other.

#pragma once

#include <cstdint>

#include "lib/base/lock.h"
#include "lib/transport/daemon/daemon_link.h"
#include "lib/transport/daemon/dial.h"
#include "lib/transport/daemon/reconnect.h"
#include "lib/transport/daemon/session.h"
#include "lib/transport/transport_internal.h"

struct Dpa;
struct Ipq;
struct IpqEnd;

inline constexpr size_t kUserNameBytes = 64;

// What a queue begins with. The calls that change it want a connection, but for the wait limit.
struct QueueSettings {
    bool blocksWhenFull;
    uint32_t batchMode;
    uint32_t waitLimitBytes;
};

// A connection that isn't the link's yet.
struct FreshConnection {
    Ipq* ipq;            // null: none
    Dpa* waiting;        // of WaitingMessage; null: none
    bool isLost;         // it broke
    bool sendsAdvisory;  // an advisory reports the break
};

struct DaemonLink {
    // Constant after creation.
    Transport* transport;
    char* specification;  // heap text
    char* service;        // heap text, without a port of one's own
    DialTarget target;
    bool startsDaemon;
    int64_t createSeconds;  // since 1970
    uint32_t pid;
    uint32_t localAddress;  // in network order; 0: not known
    char userName[kUserNameBytes];

    // Empty until the first connect has made it, before any other thread; then constant.
    char session[kMostSessionChars + 1];

    Lock lock;
    Ipq* ipq PELMO_GUARDED_BY(lock);         // null: no connection
    bool hasSent PELMO_GUARDED_BY(lock);     // by it, for the application
    SendLosses lost PELMO_GUARDED_BY(lock);  // by breaks
    FreshConnection fresh PELMO_GUARDED_BY(lock);
    bool isReturning PELMO_GUARDED_BY(lock);  // a break waits until the return is reported
    bool isStopped PELMO_GUARDED_BY(lock);
    uint32_t reconnectTimer PELMO_GUARDED_BY(lock);  // kNoId: none
    BreakRow breaks PELMO_GUARDED_BY(lock);
    DaemonVersion version PELMO_GUARDED_BY(lock);  // of the last daemon
    QueueSettings queueSettings PELMO_GUARDED_BY(lock);
};

// The link's queue with a reference, or null. `sends`: something of the application's, whose loss
// is reported.
[[nodiscard]] Ipq* linkTakeQueue(DaemonLink* link, bool sends = false);

[[nodiscard]] bool linkIsStopped(DaemonLink* link);

// Keeps a message for the connection that is being made, if one is. kStatusDaemonNotConnected if
// none is.
struct WaitingMessage {
    pelmoMsg* message;
    DaemonVersion since;  // an older daemon isn't sent it
};
[[nodiscard]] pelmoStatus linkKeepLocked(DaemonLink* link, pelmoMsg* message, DaemonVersion since)
    PELMO_REQUIRES(link->lock);

// Connects and begins the session. The transport's object lock is held once, released meanwhile,
// and held again on return. `isFirst`: a connection that breaks before it is the link's counts as
// none.
[[nodiscard]] pelmoStatus linkConnect(DaemonLink* link, bool resume, bool isFirst)
    PELMO_REQUIRES(link->transport->header.lock);

// Runs the hooks of interest, which may put another message in place of `*message`. The object lock
// isn't held.
[[nodiscard]] pelmoStatus linkRunInterestHooks(DaemonLink* link, pelmoMsg** message);

// Sends by a queue of which the caller holds a reference, and sees to a break. The object lock
// isn't held.
[[nodiscard]] pelmoStatus linkSend(DaemonLink* link, Ipq* ipq, pelmoMsg* message);

// Answers a status that a send by this queue had: a lost connection, or one that misses a message.
void linkNoteSend(DaemonLink* link, Ipq* ipq, pelmoStatus status);

// The queue is lost. The caller holds a reference to the queue or to the transport, and no lock.
void linkBreak(DaemonLink* link, Ipq* ipq, bool sendsAdvisory);

// Closes a queue that is no link's any more.
void linkCloseQueue(Ipq* ipq, bool graceful, IpqEnd* end);
