#include "lib/runtime/wakeup_pair.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/socket_error.h"

// A wake-up must never write to another file's descriptor. It may come from a signal handler at any
// moment, also between two instructions of the thread that closes the sockets, and the number of a
// closed descriptor may be reused at once. So a wake-up counts itself in `wakers` and only then
// reads the handle; a close first clears the handle and only then waits until `wakers` is 0. Either
// the wake-up reads that there is no handle, or the close waits for it: never for long, as the send
// doesn't block. A handler that interrupts the closing thread has returned before that thread
// continues.

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

struct WakeupPair {
    // Constant after creation.
    WakeupFunction onWake;
    WakeupFunction onFail;
    void* closure;

    Lock lock;

    bool valid PELMO_GUARDED_BY(lock);  // the two sockets exist

    // Written under `lock`, read without it.
    std::atomic<bool> active;  // until destroyed
    std::atomic<uint32_t> ioEvent;

    // Used by signal handlers too. All are sequentially consistent: see above.
    std::atomic<int> writeHandle;  // -1: none
    std::atomic<int> readHandle;   // valid while there is a writeHandle
    std::atomic<int> wakers;       // wake-ups under way
    std::atomic<bool> signalled;   // never cleared

    // The creator's reference, and one for each event, released when no callback of the event can
    // run any more.
    std::atomic<uint32_t> references;
};

namespace {

// Both ends are non-blocking, and closed on exec.
struct LoopbackPair {
    int readHandle;  // of TCP, the accepted end
    int writeHandle;
};

constexpr int kMostStrangers = 32;
constexpr int kAwaitMilliseconds = 100;
constexpr int kHandOnMilliseconds = 10;

// Closed at the end of the scope unless taken.
class Handle {
  public:
    explicit Handle(int number) : handle(number) {}
    ~Handle() {
        // close isn't repeated on EINTR: the descriptor is closed in any case.
        if (handle >= 0) close(handle);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    [[nodiscard]] int number() const { return handle; }
    [[nodiscard]] int take() { return std::exchange(handle, -1); }

  private:
    int handle;
};

struct Address {
    sockaddr_in in{};
    socklen_t size = sizeof(in);

    sockaddr* generic() { return reinterpret_cast<sockaddr*>(&in); }
};

bool isSame(const sockaddr_in& a, const sockaddr_in& b) {
    return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

int newSocket() {
    return socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
}

bool listenOnLoopback(int listener, Address* out) {
    Address address;
    address.in.sin_family = AF_INET;
    address.in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, address.generic(), address.size) != 0) return false;
    if (listen(listener, 1) != 0) return false;
    *out = {};
    return getsockname(listener, out->generic(), &out->size) == 0;
}

// Begins to connect and returns its own address. An interrupted connect continues by itself.
bool connectTo(int connecting, Address target, Address* own) {
    if (connect(connecting, target.generic(), target.size) != 0 && errno != EINPROGRESS &&
        errno != EINTR) {
        return false;
    }
    return getsockname(connecting, own->generic(), &own->size) == 0;
}

bool awaitPeer(int listener) {
    pollfd entry{.fd = listener, .events = POLLIN, .revents = 0};
    int ready;
    do {
        ready = poll(&entry, 1, kAwaitMilliseconds);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool setNoDelay(int socket) {
    const int on = 1;
    return setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0;
}

// The bytes written to one end that haven't arrived at the other end, where they count whether read
// or not. The system updates both counts with the socket's lock held, so a concurrent write is seen
// as a whole. Returns 0 for a local pair, which has no such counts.
uint64_t bytesUnderWay(const LoopbackPair& pair) {
    tcp_info writer = {};
    tcp_info reader = {};
    socklen_t size = sizeof(writer);
    if (getsockopt(pair.writeHandle, IPPROTO_TCP, TCP_INFO, &writer, &size) != 0) return 0;
    size = sizeof(reader);
    if (getsockopt(pair.readHandle, IPPROTO_TCP, TCP_INFO, &reader, &size) != 0) return 0;
    const uint64_t sent = writer.tcpi_bytes_sent - writer.tcpi_bytes_retrans;
    const uint64_t written = sent + writer.tcpi_notsent_bytes;
    return written > reader.tcpi_bytes_received ? written - reader.tcpi_bytes_received : 0;
}

bool makeTcpPair(LoopbackPair* out) {
    const Handle listener(newSocket());
    Handle connecting(newSocket());
    if (listener.number() < 0 || connecting.number() < 0) return false;
    Address target;
    Address own;
    if (!listenOnLoopback(listener.number(), &target)) return false;
    if (!connectTo(connecting.number(), target, &own)) return false;
    Handle accepted(loopbackAcceptFrom(listener.number(), own.in));
    if (accepted.number() < 0) return false;
    if (!setNoDelay(accepted.number()) || !setNoDelay(connecting.number())) return false;
    *out = {.readHandle = accepted.take(), .writeHandle = connecting.take()};
    return true;
}

bool makeLocalPair(LoopbackPair* out) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return false;
    *out = {.readHandle = ends[0], .writeHandle = ends[1]};
    return true;
}

// A connection over the loopback interface, or a local stream pair when the system has no such
// interface or it is down. False with nothing left open; *out is written only on success.
bool loopbackPairMake(LoopbackPair* out) {
    return makeTcpPair(out) || makeLocalPair(out);
}

// Has the connection stopped delivering what is written? When loopback is taken down, its
// connections stay, but bytes written to them never arrive. Takes no time unless bytes are missing,
// and makes only system calls, so signal handlers may use it.
bool loopbackPairIsStuck(const LoopbackPair& pair) {
    // Loopback delivers a byte at once, except for rare delays, which are waited for.
    for (const int milliseconds : {0, kHandOnMilliseconds}) {
        pollfd entry{.fd = pair.readHandle, .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, milliseconds) > 0 || bytesUnderWay(pair) == 0) return false;
    }
    return true;
}

void loopbackPairClose(const LoopbackPair& pair) {
    close(pair.readHandle);
    close(pair.writeHandle);
}

constexpr size_t kWakesAtOnce = 32;

void closeSocketsLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    if (!std::exchange(pair->valid, false)) return;
    const int writeHandle = pair->writeHandle.exchange(-1);
    while (pair->wakers.load() != 0)
        sched_yield();
    loopbackPairClose({pair->readHandle.exchange(-1), writeHandle});
}

// No other thread can reach the pair once its last reference is gone.
void release(WakeupPair* pair) PELMO_UNCHECKED_LOCKING {
    if (pair->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    closeSocketsLocked(pair);
    Lock_Destroy(&pair->lock);
    std::free(pair);
}

void onEventGone(uint32_t, void* pair) {
    release(static_cast<WakeupPair*>(pair));
}

// The event may be gone already, since the library's close destroys all events.
void endEvent(WakeupPair* pair, uint32_t event) {
    if (event == kNoId) return;
    if (pelmoEvent_DestroyEx(event, onEventGone) != kStatusSuccess) release(pair);
}

// The caller holds a reference of its own, so that the event's isn't the last.
void disableLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    // The event is destroyed first: then no thread polls the socket any more.
    endEvent(pair, pair->ioEvent.exchange(kNoId));
    closeSocketsLocked(pair);
}

// These errors leave a connection usable: out of memory (12), a medium's own error (124), would
// block, in progress, no buffers.
bool passes(int code) {
    static constexpr int kPassing[] = {12, 124, 10035, 10036, 10055};
    return std::ranges::find(kPassing, code) != std::end(kPassing);
}

// Reads what was written. Returns whether the connection is still usable.
bool drainLocked(const WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    char bytes[kWakesAtOnce];
    ssize_t got;
    do {
        got = recv(pair->readHandle.load(), bytes, sizeof(bytes), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0) return passes(socketErrorFromErrno(errno));
    if (got == 0) logPrint("Socket pair unexpectedly closed, creating new pair");
    return got > 0;
}

// Remakes the pair. Returns whether that failed, so that its owner must be called.
bool renewLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    uint32_t queueId;
    const bool asked = pelmoEvent_GetQueue(pair->ioEvent.load(), &queueId) == kStatusSuccess;
    disableLocked(pair);
    return !asked || wakeupPairRemake(pair, queueId) != kStatusSuccess;
}

void onPairEvent(uint32_t, pelmoMsg*, void* closure) {
    auto* const pair = static_cast<WakeupPair*>(closure);
    bool fire = false;
    bool failed = false;
    {
        LockGuard guard(pair->lock);
        if (!pair->active.load()) return;
        if (pair->valid && !drainLocked(pair)) failed = renewLocked(pair);
        fire = pair->signalled.load();
    }
    // The event's reference keeps the pair alive until this returns, whatever the callbacks do.
    if (fire && pair->onWake != nullptr) pair->onWake(pair->closure);
    if (failed && pair->active.load() && pair->onFail != nullptr) pair->onFail(pair->closure);
}

pelmoStatus makeSocketsLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    if (pair->valid) return kStatusSuccess;
    LoopbackPair sockets;
    if (!loopbackPairMake(&sockets)) return kStatusSocketLimit;
    pair->readHandle.store(sockets.readHandle);
    pair->writeHandle.store(sockets.writeHandle);
    pair->valid = true;
    return kStatusSuccess;
}

pelmoStatus makeEventLocked(WakeupPair* pair, uint32_t queueId) PELMO_REQUIRES(pair->lock) {
    if (pair->ioEvent.load() != kNoId) return kStatusSuccess;
    pair->references.fetch_add(1, std::memory_order_relaxed);
    uint32_t event;
    const pelmoStatus status =
        pelmoEvent_CreateIO(&event, queueId, onPairEvent, pair->readHandle.load(), kIoRead, pair);
    if (status != kStatusSuccess) {
        pair->references.fetch_sub(1, std::memory_order_relaxed);
        return status;
    }
    pair->ioEvent.store(event);
    return kStatusSuccess;
}

}  // namespace

int loopbackAcceptFrom(int listener, const sockaddr_in& own) {
    for (int strangers = 0; strangers <= kMostStrangers; ++strangers) {
        if (!awaitPeer(listener)) return -1;
        Address peer;
        Handle accepted(
            accept4(listener, peer.generic(), &peer.size, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (accepted.number() >= 0 && isSame(peer.in, own)) return accepted.take();
        if (accepted.number() < 0 && errno != EINTR && errno != EAGAIN && errno != ECONNABORTED) {
            return -1;
        }
    }
    return -1;
}

pelmoStatus wakeupPairCreate(WakeupPair** out,
                             uint32_t queueId,
                             WakeupFunction onWake,
                             WakeupFunction onFail,
                             void* closure) {
    void* const block = std::calloc(1, sizeof(WakeupPair));
    if (block == nullptr) return kStatusNoMemory;
    auto* const pair = new (block) WakeupPair{};
    const pelmoStatus locked = Lock_Init(&pair->lock, LockRank::kWakeupPair);
    if (locked != kStatusSuccess) {
        std::free(pair);
        return locked;
    }
    pair->onWake = onWake;
    pair->onFail = onFail;
    pair->closure = closure;
    pair->readHandle.store(-1);
    pair->writeHandle.store(-1);
    pair->active.store(true);
    pair->references.store(1, std::memory_order_relaxed);

    const pelmoStatus status = wakeupPairRemake(pair, queueId);
    if (status != kStatusSuccess) {
        wakeupPairDestroy(pair);
        return status;
    }
    *out = pair;
    return kStatusSuccess;
}

void wakeupPairWake(WakeupPair* pair) {
    const int keptErrno = errno;
    pair->wakers.fetch_add(1);
    if (pair->active.load()) {
        pair->signalled.store(true);
        const int handle = pair->writeHandle.load();
        // When no more bytes fit, there are enough to wake the reader.
        while (handle >= 0 && send(handle, "*", 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
               errno == EINTR) {
        }
        // The network doesn't deliver the byte. The shutdown wakes the reader by the end of its
        // stream, and the reader remakes the pair.
        const int readHandle = pair->readHandle.load();
        if (handle >= 0 && loopbackPairIsStuck({readHandle, handle})) shutdown(readHandle, SHUT_RD);
    }
    pair->wakers.fetch_sub(1);
    errno = keptErrno;
}

pelmoStatus wakeupPairRemake(WakeupPair* pair, uint32_t queueId) {
    LockGuard guard(pair->lock);
    if (!pair->active.load()) return kStatusSuccess;
    const pelmoStatus status = makeSocketsLocked(pair);
    return status == kStatusSuccess ? makeEventLocked(pair, queueId) : status;
}

void wakeupPairDisable(WakeupPair* pair) {
    LockGuard guard(pair->lock);
    disableLocked(pair);
}

void wakeupPairDestroy(WakeupPair* pair) {
    uint32_t event;
    {
        LockGuard guard(pair->lock);
        if (!pair->active.exchange(false)) return;
        event = pair->ioEvent.exchange(kNoId);
    }
    // The lock must be released first, since the last reference frees it with the pair.
    endEvent(pair, event);
    release(pair);
}

bool wakeupPairHasEvent(WakeupPair* pair) {
    return pair->ioEvent.load() != kNoId;
}
