#include "lib/transport/reliable/reliable_endpoint.h"

#include <poll.h>
#include <sys/random.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/runtime/event.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/id.h"
#include "lib/runtime/library.h"
#include "lib/runtime/no_wait.h"
#include "lib/transport/reliable/datagram_socket.h"
#include "lib/transport/reliable/endpoint_events.h"

struct ReliableEndpoint {
    // Constant after creation.
    DatagramSocket datagrams;  // its batches are guarded by the lock
    ReliableDataCallback onData;
    ReliableLossCallback onLoss;

    // The maker's, one for each of event and timer, for each call that is under way with the lock
    // released, and what ReliableEndpoint_Retain took.
    std::atomic<uint32_t> references;

    Lock lock;
    Cond handlersGone;  // broadcast when `handlers` goes to 0

    EndpointCore core PELMO_GUARDED_BY(lock);
    uintptr_t closure PELMO_GUARDED_BY(lock);
    bool isClosing PELMO_GUARDED_BY(lock);
    uint32_t readEvent PELMO_GUARDED_BY(lock);
    uint32_t timer PELMO_GUARDED_BY(lock);
    double timerDue PELMO_GUARDED_BY(lock);    // when the timer fires at the latest
    uint32_t handlers PELMO_GUARDED_BY(lock);  // of event and timer, those not gone yet
};

namespace {

constexpr double kSleepSeconds = 1e9;         // of a timer without a deadline
constexpr double kLeastTimerSeconds = 0.001;  // the clock's step; 0 would mean at every turn
constexpr double kWaitStepSeconds = 1.0;
constexpr double kAtOnce = 0;  // a deadline that has passed

// Of one read event, so that other sockets of the thread get their turn.
constexpr uint32_t kMostReads = 4;

// The endpoint whose event or timer runs on this thread.
constinit thread_local const ReliableEndpoint* handled = nullptr;

struct HandlerMark {
    explicit HandlerMark(ReliableEndpoint* endpoint)
        : own(endpoint), former(std::exchange(handled, endpoint)) {
        ReliableEndpoint_Retain(own);
    }
    ~HandlerMark() {
        handled = former;
        ReliableEndpoint_Release(own);
    }
    HandlerMark(const HandlerMark&) = delete;
    HandlerMark& operator=(const HandlerMark&) = delete;

    ReliableEndpoint* own;
    const ReliableEndpoint* former;
};

// The core's sink

void sinkSend(void* closure, const PeerAddress& to, const OutDatagram& datagram) {
    datagramAdd(&static_cast<ReliableEndpoint*>(closure)->datagrams, to, datagram);
}

void sinkWakeSenders(void*, void* waiter) {
    Cond_Broadcast(static_cast<Cond*>(waiter));
}

void sinkDropWaiter(void*, void* waiter) {
    Cond_Destroy(static_cast<Cond*>(waiter));
}

// Without the system's random source the clock has to do.
uint32_t sinkDrawId(void*) {
    uint32_t id = 0;
    if (getrandom(&id, sizeof id, GRND_NONBLOCK) == ssize_t{sizeof id}) return id;
    return static_cast<uint32_t>(static_cast<uint64_t>(clockSteadySeconds() * 1e6));
}

// After each group of calls of the core

// A deadline that moved back leaves the timer as it is: it fires early, and is set again then.
void armTimerLocked(ReliableEndpoint* endpoint) PELMO_REQUIRES(endpoint->lock) {
    const double due = endpointNextDeadline(&endpoint->core);
    if (due >= endpoint->timerDue || endpoint->timer == kNoId) return;
    endpoint->timerDue = due;
    const double wait = std::max(due - clockSteadySeconds(), kLeastTimerSeconds);
    (void)pelmoEvent_ResetTimerInterval(endpoint->timer, wait);
}

// Sends with the lock released, what other threads add meanwhile included; one thread at a time, so
// that packets keep their order.
void sendLocked(ReliableEndpoint* endpoint, EndpointEvents& events) PELMO_REQUIRES(endpoint->lock) {
    DatagramSocket* const datagrams = &endpoint->datagrams;
    while (SendBatch* const batch = datagramBegin(datagrams)) {
        Lock_Leave(&endpoint->lock);
        datagramSend(datagrams, batch);
        Lock_Enter(&endpoint->lock);
        if (batch->failure.error != 0) events.failure = std::exchange(batch->failure, {});
        datagramEnd(datagrams);
    }
}

EndpointCallbacks callbacksLocked(const ReliableEndpoint* endpoint) PELMO_REQUIRES(endpoint->lock) {
    return {.onData = endpoint->onData,
            .onLoss = endpoint->onLoss,
            .closure = endpoint->closure,
            .port = endpoint->datagrams.port};
}

// Calls of the core in one lock hold, as many as `callOnce` wants to make. Their events are
// delivered in between when there is no more room for them. `callOnce` is false once it has made
// none.
template <typename CallOnce>
void callCore(ReliableEndpoint* endpoint, CallOnce callOnce) {
    EndpointEvents events;
    bool isMore = true;
    while (isMore) {
        EndpointCallbacks callbacks;
        {
            const LockGuard guard(endpoint->lock);
            while (isMore && endpointEventsHaveRoom(events)) {
                EndpointOutput output = {};
                isMore = callOnce(&output);
                endpointEventsAdd(events, output);
            }
            armTimerLocked(endpoint);
            callbacks = callbacksLocked(endpoint);
            sendLocked(endpoint, events);
        }
        endpointEventsDeliver(events, callbacks);
    }
}

// Reading

// One read of the socket. False where there is nothing more to read.
bool readSome(ReliableEndpoint* endpoint) {
    ReadBatch batch;  // not zeroed
    if (!datagramRead(&endpoint->datagrams, &batch)) return false;
    ReadPlace place;
    const double now = clockSteadySeconds();
    callCore(endpoint, [&](EndpointOutput* output) PELMO_UNCHECKED_LOCKING {
        ReadDatagram datagram;
        if (!readNext(&batch, &place, &datagram)) return false;
        endpointTakeDatagram(&endpoint->core, now, datagram.source, datagram.bytes, output);
        return true;
    });
    return batch.count == kReadSlots;
}

bool isClosing(ReliableEndpoint* endpoint) {
    const LockGuard guard(endpoint->lock);
    return endpoint->isClosing;
}

void onReadable(uint32_t, pelmoMsg*, void* closure) {
    auto* const endpoint = static_cast<ReliableEndpoint*>(closure);
    const HandlerMark mark(endpoint);
    for (uint32_t reads = 0; reads < kMostReads && !isClosing(endpoint); ++reads) {
        if (!readSome(endpoint)) return;
    }
}

// Time

void runTicks(ReliableEndpoint* endpoint) {
    const double now = clockSteadySeconds();
    callCore(endpoint, [&](EndpointOutput* output) PELMO_UNCHECKED_LOCKING {
        return endpointTick(&endpoint->core, now, output);
    });
}

// The timer repeats: its next interval is set before its next turn.
void onTimer(uint32_t timer, pelmoMsg*, void* closure) {
    auto* const endpoint = static_cast<ReliableEndpoint*>(closure);
    const HandlerMark mark(endpoint);
    if (isClosing(endpoint)) return;
    runTicks(endpoint);
    const LockGuard guard(endpoint->lock);
    endpoint->timerDue = kNever;
    (void)pelmoEvent_ResetTimerInterval(timer, kSleepSeconds);
    armTimerLocked(endpoint);
}

// Life

void destruct(ReliableEndpoint* endpoint) PELMO_UNCHECKED_LOCKING {  // the last one to know it
    endpointFree(&endpoint->core);
    datagramClose(&endpoint->datagrams);
    Cond_Destroy(&endpoint->handlersGone);
    Lock_Destroy(&endpoint->lock);
    std::free(endpoint);
}

// Nobody else knows it yet.
pelmoStatus fillRecord(ReliableEndpoint* made,
                       uint32_t address,
                       uint16_t port) PELMO_UNCHECKED_LOCKING {
    pelmoStatus status = datagramOpen(&made->datagrams, address, port);
    if (status != kStatusSuccess) return status;
    status = endpointInit(&made->core, {.closure = made,
                                        .send = sinkSend,
                                        .wakeSenders = sinkWakeSenders,
                                        .dropWaiter = sinkDropWaiter,
                                        .drawId = sinkDrawId});
    if (status != kStatusSuccess) datagramClose(&made->datagrams);
    return status;
}

pelmoStatus initRecord(ReliableEndpoint* made, uint32_t address, uint16_t port) {
    pelmoStatus status = Lock_Init(&made->lock, LockRank::kEndpoint);
    if (status != kStatusSuccess) return status;
    status = Cond_Init(&made->handlersGone);
    if (status == kStatusSuccess) {
        status = fillRecord(made, address, port);
        if (status == kStatusSuccess) return status;
        Cond_Destroy(&made->handlersGone);
    }
    Lock_Destroy(&made->lock);
    return status;
}

pelmoStatus makeRecord(ReliableEndpoint** out, uint32_t address, uint16_t port) {
    void* const block = std::calloc(1, sizeof(ReliableEndpoint));
    if (block == nullptr) return kStatusNoMemory;
    auto* const made = new (block) ReliableEndpoint{};
    made->references.store(1, std::memory_order_relaxed);
    const pelmoStatus status = initRecord(made, address, port);
    if (status == kStatusSuccess) {
        *out = made;
    } else {
        std::free(block);
    }
    return status;
}

void handlerGone(ReliableEndpoint* endpoint) {
    {
        const LockGuard guard(endpoint->lock);
        if (--endpoint->handlers == 0) Cond_Broadcast(&endpoint->handlersGone);
    }
    ReliableEndpoint_Release(endpoint);
}

void onHandlerGone(uint32_t, void* closure) {
    handlerGone(static_cast<ReliableEndpoint*>(closure));
}

void noteHandlerLocked(ReliableEndpoint* endpoint, pelmoStatus status)
    PELMO_REQUIRES(endpoint->lock) {
    if (status != kStatusSuccess) return;
    ++endpoint->handlers;
    ReliableEndpoint_Retain(endpoint);
}

pelmoStatus startHandlers(ReliableEndpoint* endpoint) {
    const LockGuard guard(endpoint->lock);
    endpoint->timerDue = kNever;
    pelmoStatus status =
        pelmoEvent_CreateTimer(&endpoint->timer, kTimerQueueId, onTimer, kSleepSeconds, endpoint);
    noteHandlerLocked(endpoint, status);
    if (status != kStatusSuccess) return status;
    status = pelmoEvent_CreateIO(&endpoint->readEvent, kFirstIoQueueId, onReadable,
                                 endpoint->datagrams.handle, kIoRead, endpoint);
    noteHandlerLocked(endpoint, status);
    return status;
}

// The library's close ends all events, so that they may be gone already.
void endHandlers(ReliableEndpoint* endpoint) {
    uint32_t ended[2];
    {
        const LockGuard guard(endpoint->lock);
        ended[0] = std::exchange(endpoint->readEvent, kNoId);
        ended[1] = std::exchange(endpoint->timer, kNoId);
    }
    for (const uint32_t event : ended) {
        if (event == kNoId) continue;
        if (pelmoEvent_DestroyEx(event, onHandlerGone) != kStatusSuccess) handlerGone(endpoint);
    }
    if (handled == endpoint) return;
    const LockGuard guard(endpoint->lock);
    while (endpoint->handlers != 0)
        (void)Cond_Wait(&endpoint->handlersGone, &endpoint->lock);
}

// Flushing

bool isFlushed(ReliableEndpoint* endpoint, double* outDeadline) {
    const LockGuard guard(endpoint->lock);
    *outDeadline = endpointNextDeadline(&endpoint->core);
    return endpointIsFlushed(&endpoint->core);
}

// Event and timer are gone: the closing thread reads and ticks by itself. The core gives up each
// peer that acknowledges nothing any more.
void flush(ReliableEndpoint* endpoint, double end) {
    double due;
    while (!isFlushed(endpoint, &due)) {
        const double now = clockSteadySeconds();
        if (now >= end) return;
        const double left = std::min({due - now, end - now, kWaitStepSeconds});
        const double wait = std::max(left, kLeastTimerSeconds);
        pollfd polled = {.fd = endpoint->datagrams.handle, .events = POLLIN, .revents = 0};
        if (poll(&polled, 1, static_cast<int>(wait * 1000)) > 0) (void)readSome(endpoint);
        runTicks(endpoint);
    }
}

EndpointUnsent unsent(ReliableEndpoint* endpoint) {
    const LockGuard guard(endpoint->lock);
    return endpointUnsent(&endpoint->core);
}

bool beginClose(ReliableEndpoint* endpoint) {
    const LockGuard guard(endpoint->lock);
    return !std::exchange(endpoint->isClosing, true);
}

// Waits for room

// Null without memory: the sender then does not wait.
Cond* waiterLocked(ReliableConnection* connection) {
    void*& waiter = connectionWaiter(connection);
    if (waiter == nullptr) {
        Cond* made = nullptr;
        if (Cond_Create(&made) == kStatusSuccess) waiter = made;
    }
    return static_cast<Cond*>(waiter);
}

// Lets go of the connection.
pelmoStatus awaitRoom(ReliableEndpoint* endpoint, ReliableConnection* connection) {
    const LockGuard guard(endpoint->lock);
    while (!connectionIsClosed(connection) && !connectionHasRoom(connection) && threadMayWait()) {
        Cond* const waiter = waiterLocked(connection);
        if (waiter == nullptr) break;
        (void)Cond_TimedWait(waiter, &endpoint->lock, kWaitStepSeconds);
    }
    const bool isClosed = connectionIsClosed(connection);
    connectionLetGo(&endpoint->core, connection);
    return isClosed ? kStatusDeliveryFailed : kStatusSuccess;
}

}  // namespace

pelmoStatus ReliableEndpoint_Open(ReliableEndpoint** out,
                                  uint32_t address,
                                  uint16_t port,
                                  ReliableDataCallback onData,
                                  ReliableLossCallback onLoss,
                                  uintptr_t closure) PELMO_UNCHECKED_LOCKING {
    ReliableEndpoint* made = nullptr;
    pelmoStatus status = makeRecord(&made, address, port);
    if (status != kStatusSuccess) return status;
    made->onData = onData;
    made->onLoss = onLoss;
    made->closure = closure;
    status = startHandlers(made);
    if (status != kStatusSuccess) {
        (void)ReliableEndpoint_Close(made, kAtOnce, nullptr);
        return status;
    }
    *out = made;
    return status;
}

void ReliableEndpoint_Retain(ReliableEndpoint* endpoint) {
    endpoint->references.fetch_add(1, std::memory_order_relaxed);
}

void ReliableEndpoint_Release(ReliableEndpoint* endpoint) {
    if (endpoint->references.fetch_sub(1, std::memory_order_acq_rel) == 1) destruct(endpoint);
}

uint16_t ReliableEndpoint_Port(const ReliableEndpoint* endpoint) {
    return endpoint->datagrams.port;
}

void ReliableEndpoint_SetClosure(ReliableEndpoint* endpoint, uintptr_t closure) {
    const LockGuard guard(endpoint->lock);
    endpoint->closure = closure;
}

EndpointCounts ReliableEndpoint_Counts(ReliableEndpoint* endpoint) {
    const LockGuard guard(endpoint->lock);
    return endpoint->core.counts;
}

pelmoStatus ReliableEndpoint_Send(ReliableEndpoint* endpoint,
                                  uint32_t peerAddress,
                                  uint16_t peerPort,
                                  std::span<pelmoMsg* const> messages,
                                  bool delaySmall) {
    const PeerAddress peer = {.address = peerAddress, .port = hostOrder16(peerPort)};
    ReliableConnection* waits = nullptr;
    pelmoStatus status = kStatusSuccess;
    callCore(endpoint, [&](EndpointOutput* output) PELMO_UNCHECKED_LOCKING {
        status = endpointSend(&endpoint->core, clockSteadySeconds(), peer, messages, delaySmall,
                              &waits, output);
        if (waits != nullptr) ReliableEndpoint_Retain(endpoint);
        return false;
    });
    if (waits == nullptr) return status;
    status = awaitRoom(endpoint, waits);
    ReliableEndpoint_Release(endpoint);
    return status;
}

bool ReliableEndpoint_Close(ReliableEndpoint* endpoint,
                            double deadline,
                            EndpointUnsent* outUnsent) {
    if (!beginClose(endpoint)) return false;
    const bool flushes = clockSteadySeconds() < deadline;
    endHandlers(endpoint);
    callCore(endpoint, [&](EndpointOutput* output) PELMO_UNCHECKED_LOCKING {
        endpointCloseBegin(&endpoint->core, clockSteadySeconds(), flushes, output);
        return false;
    });
    if (flushes) flush(endpoint, deadline);
    if (outUnsent != nullptr) *outUnsent = unsent(endpoint);
    callCore(endpoint, [&](EndpointOutput* output) PELMO_UNCHECKED_LOCKING {
        return endpointCloseEnd(&endpoint->core, clockSteadySeconds(), output);
    });
    ReliableEndpoint_Release(endpoint);
    return true;
}
