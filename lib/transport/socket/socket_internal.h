// The record of a socket, and what its sources call of each other: socket.cc (life, settings),
// socket_connect.cc (binding, accepting, connecting), socket_events.cc (callbacks) and socket_io.cc
// (bytes, waits).
//
// The handle never blocks, whatever the mode. A blocking call waits in a poll of its own with the
// lock released, then takes the lock, looks at the state again and makes a call that doesn't wait.
// A close during such a poll shuts the handle, which ends the poll, and leaves closing it to the
// last poll: until then its number can't become another file's.

#pragma once

#include <atomic>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/runtime/id.h"
#include "lib/transport/socket/socket.h"
#include "lib/transport/socket/socket_class.h"

enum class SocketRole : uint32_t { kClient = 1, kServer, kAccepted };

enum class SocketState : uint32_t {
    kClosed,
    kOpen,
    kListening,
    kConnecting,
    kConnected,
    kFailed,
};

// A callback that was set, and those that have taken its place since. Its socket knows it until it
// is cancelled; it is freed then, or at the end of its last run. Guarded by the socket's lock.
struct SocketHandler {
    SocketCallback callback;
    void* closure;
    bool knowsFailure = false;  // the callback has run for the failed connect

    uint32_t runs = 0;  // under way
    bool cancelled = false;
    SocketDone done = nullptr;  // for the end of the last run, once cancelled; may be null
};

// The IO events, by place.
enum SocketEvent : uint32_t { kReadEvent, kWriteEvent, kExceptEvent, kSocketEvents };

struct SocketRate {
    uint64_t total;
    uint64_t lastTotal;  // ten seconds ago
    double perSecond;
};

struct Socket {
    // Constant after creation.
    SocketRole role;
    bool isLocal;
    SocketClass functions;  // of its class

    // The creator's, one for each IO event and the rate timer, and what socketRetain took.
    std::atomic<uint32_t> references;

    Lock lock;
    Cond connectCond;  // wakes those who wait while the class begins a connection

    // Life
    SocketState state PELMO_GUARDED_BY(lock);
    int handle PELMO_GUARDED_BY(lock);           // -1: none
    uint32_t polls PELMO_GUARDED_BY(lock);       // waits for the handle that are under way
    int lastError PELMO_GUARDED_BY(lock);        // by lib/runtime/socket_error.h
    bool interrupted PELMO_GUARDED_BY(lock);     // never reset
    bool beginning PELMO_GUARDED_BY(lock);       // the class works on what comes before the bytes
    SocketCode failCode PELMO_GUARDED_BY(lock);  // of a connect that failed

    // Addresses in network order
    bool bound PELMO_GUARDED_BY(lock);
    uint32_t boundAddress PELMO_GUARDED_BY(lock);
    uint16_t boundPort PELMO_GUARDED_BY(lock);
    uint32_t peerAddress PELMO_GUARDED_BY(lock);
    uint16_t peerPort PELMO_GUARDED_BY(lock);

    // Settings
    uint32_t queueId PELMO_GUARDED_BY(lock);
    SocketMode mode PELMO_GUARDED_BY(lock);
    SocketCrossMode crossMode PELMO_GUARDED_BY(lock);
    double deadline PELMO_GUARDED_BY(lock);  // by clockSteadySeconds; 0: none
    void* userData PELMO_GUARDED_BY(lock);   // the class's

    // Bytes taken from the system and not read yet
    char* peekBuffer PELMO_GUARDED_BY(lock);
    uint32_t peekCapacity PELMO_GUARDED_BY(lock);
    uint32_t peekCount PELMO_GUARDED_BY(lock);
    uint32_t minRead PELMO_GUARDED_BY(lock);

    // Callbacks
    SocketHandler* reader PELMO_GUARDED_BY(lock);
    SocketHandler* writer PELMO_GUARDED_BY(lock);
    uint32_t events[kSocketEvents] PELMO_GUARDED_BY(lock);

    SocketRate rates[2] PELMO_GUARDED_BY(lock);  // by SocketDirection
    uint32_t rateTimer PELMO_GUARDED_BY(lock);
};

// Lines for those who debug sockets. A macro, so that arguments aren't evaluated while it is off.
#define socketLine(...)                         \
    do {                                        \
        if (logWantsSocketLines()) [[unlikely]] \
            logPrint(__VA_ARGS__);              \
    } while (false)

[[nodiscard]] inline const char* socketKind(const Socket* socket) {
    return socket->isLocal ? "local" : "tcp";
}

// Life (socket.cc)

// A record in state closed; null without memory.
[[nodiscard]] Socket* socketNew(SocketRole role,
                                const SocketClass& functions,
                                uint32_t queueId,
                                bool isLocal);

// Notes the errno, and answers its code.
[[nodiscard]] SocketCode socketFailLocked(Socket* socket, int error) PELMO_REQUIRES(socket->lock);

// Of a status that events answer.
[[nodiscard]] SocketCode socketCodeFromStatus(pelmoStatus status);

// May a server take over a port whose last connections are still being forgotten?
[[nodiscard]] bool socketSetReuse(int handle, bool on);

// What is written goes at once.
[[nodiscard]] bool socketSetNoDelay(int handle);

// Connecting (socket_connect.cc)

// Takes a connect as far as it can go now. Returns true at its end, in either way.
bool socketConnectAdvanceLocked(Socket* socket) PELMO_REQUIRES(socket->lock);

// Ends a connect as failed.
void socketConnectFailLocked(Socket* socket, SocketCode code) PELMO_REQUIRES(socket->lock);

// Waits until the connect has ended or the time, by the steady clock, is there; 0 for no limit.
[[nodiscard]] pelmoStatus socketAwaitConnectLocked(Socket* socket, double deadline)
    PELMO_REQUIRES(socket->lock);

// Callbacks (socket_events.cc)

// Makes and ends IO events until there are those that state, callbacks and cross mode call for.
[[nodiscard]] pelmoStatus socketAdjustEventsLocked(Socket* socket) PELMO_REQUIRES(socket->lock);

// For states that need no event, or none that isn't there already.
void socketDropEventsLocked(Socket* socket) PELMO_REQUIRES(socket->lock);

// Takes a callback away. What is returned has to be called with its closure once the lock is
// released: null where nothing has to be, or the end of the callback does it.
SocketDone socketCancelLocked(Socket* socket, SocketHandler** place, SocketDone done)
    PELMO_REQUIRES(socket->lock);

void socketEndRateTimerLocked(Socket* socket) PELMO_REQUIRES(socket->lock);

// Bytes (socket_io.cc)

// Waits for the handle with the lock released. False once the time is up; true otherwise, and the
// caller looks at everything again.
[[nodiscard]] bool socketPollLocked(Socket* socket, short events, double deadline)
    PELMO_REQUIRES(socket->lock);

// Adds to the peek buffer what can be read now, up to `size` bytes in it.
[[nodiscard]] SocketCode socketFillPeekLocked(Socket* socket, uint32_t size)
    PELMO_REQUIRES(socket->lock);

[[nodiscard]] bool socketGrowPeekLocked(Socket* socket, uint32_t size) PELMO_REQUIRES(socket->lock);
