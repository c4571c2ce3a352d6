// Life and settings of a queue.

#include "lib/transport/ipq/ipq.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/event.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "lib/transport/socket/socket.h"

namespace {

constexpr uint64_t kHighWaterBytes = 0x1000000;
constexpr uint32_t kBatchMessages = 32;

// By place in Ipq::timers. All are repeating; those that shall run once are stopped by their run.
struct TimerKind {
    double seconds;
    void (*run)(Ipq* ipq);
};
constexpr TimerKind kTimers[kIpqTimers] = {
    {60.0, ipqOnKeepAlive}, {0.5, ipqOnAge}, {0.025, ipqOnFlush}};

template <IpqTimer kWhich>
void onTimer(uint32_t, pelmoMsg*, void* closure) {
    const IpqWorkerScope worker;
    kTimers[kWhich].run(static_cast<Ipq*>(closure));
}
constexpr pelmoEventCallback kTimerCallbacks[kIpqTimers] = {
    onTimer<kKeepAliveTimer>, onTimer<kAgeTimer>, onTimer<kFlushTimer>};

void onTimerGone(uint32_t, void* closure) {
    ipqRelease(static_cast<Ipq*>(closure));
}

// The longest message that both sides agreed to. 0 for terms that can't be kept.
uint32_t agreedBytes(const HelloFrame* frame) {
    if (frame == nullptr) return kHelloMostBytes;
    const HelloTerms terms = helloRead(*frame);
    const uint32_t limitA = terms.limitA != 0 ? terms.limitA : kHelloMostBytes;
    const uint32_t limitB = terms.limitB != 0 ? terms.limitB : kHelloMostBytes;
    const bool kept =
        terms.version == kHelloVersion && limitA == kHelloMostBytes && limitB <= kHelloMostBytes;
    return kept ? limitB : 0;
}

// A unit of the stream without content.
Buffer* makeUnit(uint32_t size, uint32_t magic) {
    Buffer* const unit = bufferCreate(kMessageHeadBytes);
    if (unit == nullptr) return nullptr;
    storeBe32At(unit->data, size);
    storeBe32At(unit->data + kMessageMagicOffset, magic);
    return unit;
}

// Nobody else can reach the queue: it is being made, or its last reference is gone.
void freeQueue(Ipq* ipq) PELMO_UNCHECKED_LOCKING {
    for (uint32_t i = 0; ipq->batch != nullptr && i < ipq->batch->count; ++i)
        msgRelease(static_cast<pelmoMsg*>(ipq->batch->items[i]));
    dpaDestroy(ipq->batch);
    cutterFree(&ipq->cutter);
    writeQueueClear(&ipq->writes);
    bufferRelease(ipq->keepAliveBuffer);
    bufferRelease(ipq->closeBuffer);
    accountingFree(&ipq->accounting);
    socketDestroy(ipq->socket);
    Cond_Destroy(&ipq->writerWakeup);
    Lock_Destroy(&ipq->lock);
    IpqCloseCallback callback = ipq->closeCallback;
    void* const closure = ipq->readClosure;
    std::free(ipq);
    if (callback != nullptr) callback(closure);
}

pelmoStatus makeLocks(Ipq* ipq) {
    pelmoStatus status = Lock_Init(&ipq->lock, LockRank::kProcessQueue);
    if (status != kStatusSuccess) return status;
    status = Cond_Init(&ipq->writerWakeup);
    if (status != kStatusSuccess) Lock_Destroy(&ipq->lock);
    return status;
}

// A record without its parts; it owns the socket from here on.
Ipq* newQueue(Socket* socket) PELMO_UNCHECKED_LOCKING {
    void* const block = std::calloc(1, sizeof(Ipq));
    if (block == nullptr) return nullptr;
    auto* const ipq = new (block) Ipq{};
    if (makeLocks(ipq) != kStatusSuccess) {
        std::free(block);
        return nullptr;
    }
    ipq->socket = socket;
    ipq->references.store(1, std::memory_order_relaxed);
    return ipq;
}

pelmoStatus fillQueue(Ipq* ipq, const HelloFrame* frame) {
    const LockGuard guard(ipq->lock);
    ipq->keepAliveBuffer = makeUnit(kMessageHeadBytes, kMessageMagic);
    ipq->closeBuffer = makeUnit(0, 0);
    ipq->batch = dpaCreate(kBatchMessages);
    if (ipq->keepAliveBuffer == nullptr || ipq->closeBuffer == nullptr || ipq->batch == nullptr) {
        return kStatusNoMemory;
    }
    cutterInit(&ipq->cutter, kReadBufferBytes, ipq->mostMessageBytes);
    writeQueueInit(&ipq->writes, frame != nullptr ? helloRead(*frame).queueLimit : 0);
    accountingInit(&ipq->accounting);
    ipq->highWaterBytes = kHighWaterBytes;
    socketSetMode(ipq->socket, SocketMode::kNonBlocking);
    ipq->open = true;
    return ipqStartTimerLocked(ipq, kKeepAliveTimer);
}

// The connection's last words: what waits, then the notice, then whatever the peer still has to
// say. The queue counts as closed: all others look at that under the lock and leave what is used
// here alone. So the lock isn't held, and no thread that the peer may depend on waits for it.
void sayGoodbye(Ipq* ipq) PELMO_UNCHECKED_LOCKING {
    socketSetDeadline(ipq->socket, clockSteadySeconds() + kGracefulCloseSeconds);
    socketSetMode(ipq->socket, SocketMode::kBlocking);
    ipq->blocking = true;
    if (ipqWriteAllLocked(ipq) != kStatusSuccess) return;
    ipqSendCloseNoticeLocked(ipq);
    if (ipqWriteAllLocked(ipq) == kStatusSuccess) ipqDrain(ipq);
}

// From here on nobody but the caller uses the queue.
pelmoStatus beginClose(Ipq* ipq, IpqCloseCallback callback, bool* lost) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusInvalidArgument;
    ipq->closeCallback = callback;
    ipqStopReadingLocked(ipq);
    ipqDisarmLocked(ipq);
    ipqStopTimerLocked(ipq, kKeepAliveTimer);
    ipq->open = false;
    ipq->writes.ageSeconds = 0;
    ipq->writes.byteLimit = 0;
    *lost = ipq->failed;
    Cond_Broadcast(&ipq->writerWakeup);
    return kStatusSuccess;
}

void printAccounts(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    accountClose(&ipq->accounting, ipq->written, ipq->reads);
}

}  // namespace

pelmoStatus ipqStartTimerLocked(Ipq* ipq, IpqTimer which) {
    if (!ipq->open || ipq->timers[which] != kNoId) return kStatusSuccess;
    ipqRetain(ipq);
    const pelmoStatus status = pelmoEvent_CreateTimer(
        &ipq->timers[which], kTimerQueueId, kTimerCallbacks[which], kTimers[which].seconds, ipq);
    if (status != kStatusSuccess) ipqRelease(ipq);
    return status;
}

void ipqStopTimerLocked(Ipq* ipq, IpqTimer which) {
    const uint32_t timer = std::exchange(ipq->timers[which], kNoId);
    if (timer == kNoId) return;
    // The library's close has destroyed all timers, which then tell nobody.
    if (pelmoEvent_DestroyEx(timer, onTimerGone) != kStatusSuccess) ipqRelease(ipq);
}

void ipqReleaseClosure(void* ipq) {
    ipqRelease(static_cast<Ipq*>(ipq));
}

void ipqFail(Ipq* ipq) {
    IpqErrorCallback callback = nullptr;
    void* closure = nullptr;
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->open || std::exchange(ipq->failed, true)) return;
        callback = ipq->errorCallback;
        closure = ipq->errorClosure;
        ipqStopReadingLocked(ipq);
        ipqDisarmLocked(ipq);
        ipqStopTimerLocked(ipq, kKeepAliveTimer);
        Cond_Broadcast(&ipq->writerWakeup);
    }
    if (callback != nullptr) callback(ipq, closure);
}

pelmoStatus ipqCreate(Ipq** out, const HelloFrame* frame, uint32_t queueId, Socket* socket) {
    const uint32_t mostMessageBytes = agreedBytes(frame);
    Ipq* const ipq = mostMessageBytes != 0 ? newQueue(socket) : nullptr;
    if (ipq == nullptr) {
        socketDestroy(socket);
        return mostMessageBytes != 0 ? kStatusNoMemory : kStatusInvalidTransport;
    }
    ipq->queueId = queueId;
    ipq->mostMessageBytes = mostMessageBytes;
    const pelmoStatus status = fillQueue(ipq, frame);
    if (status != kStatusSuccess) {
        ipqRelease(ipq);
        return status;
    }
    *out = ipq;
    return kStatusSuccess;
}

pelmoStatus ipqClose(Ipq* ipq, bool graceful, IpqCloseCallback callback) {
    bool lost = false;
    const pelmoStatus status = beginClose(ipq, callback, &lost);
    if (status != kStatusSuccess) return status;
    if (graceful && !lost) sayGoodbye(ipq);
    printAccounts(ipq);
    // A read that is under way on another thread ends here.
    socketInterrupt(ipq->socket);
    ipqRelease(ipq);
    return kStatusSuccess;
}

void ipqRetain(Ipq* ipq) {
    ipq->references.fetch_add(1, std::memory_order_relaxed);
}

void ipqRelease(Ipq* ipq) {
    // The last holder must see what the others did with the queue.
    if (ipq->references.fetch_sub(1, std::memory_order_acq_rel) == 1) freeQueue(ipq);
}

pelmoStatus ipqSetBatchMode(Ipq* ipq, uint32_t mode) {
    const LockGuard guard(ipq->lock);
    if (mode == 0 && ipq->batchMode) return kStatusNotPermitted;
    ipq->batchMode = mode != 0;
    return kStatusSuccess;
}

pelmoStatus ipqSetBlockWhenFull(Ipq* ipq, bool block) {
    const LockGuard guard(ipq->lock);
    ipq->blockWhenFull = block;
    if (!block) Cond_Broadcast(&ipq->writerWakeup);
    return kStatusSuccess;
}

void ipqSetWaitLimit(Ipq* ipq, uint32_t bytes) {
    const LockGuard guard(ipq->lock);
    ipq->highWaterBytes = bytes != 0 ? bytes : kHighWaterBytes;
    Cond_Broadcast(&ipq->writerWakeup);
}

pelmoStatus ipqSetAgeCheck(Ipq* ipq,
                           bool discard,
                           double ageSeconds,
                           uint32_t byteLimit,
                           IpqProducerCallback callback,
                           void* closure) {
    if (std::isnan(ageSeconds) || ageSeconds < 0) return kStatusInvalidArgument;
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusInvalidArgument;
    ipq->writes.discards = discard;
    ipq->writes.ageSeconds = ageSeconds;
    ipq->writes.byteLimit = byteLimit;
    ipq->producerCallback = callback;
    ipq->producerClosure = closure;
    return kStatusSuccess;
}

pelmoStatus ipqSetReadCallback(Ipq* ipq, IpqReadCallback callback, void* closure) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusDaemonNotConnected;
    const SocketCode code = socketSetQueue(ipq->socket, ipq->queueId);
    if (code != kSocketDone) return socketStatus(code);
    ipq->readCallback = callback;
    ipq->readClosure = closure;
    return ipqStartReadingLocked(ipq);
}

pelmoStatus ipqSetErrorCallback(Ipq* ipq, IpqErrorCallback callback, void* closure) {
    const LockGuard guard(ipq->lock);
    ipq->errorCallback = callback;
    ipq->errorClosure = closure;
    return kStatusSuccess;
}

pelmoStatus ipqPauseReading(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusDaemonNotConnected;
    ipqStopReadingLocked(ipq);
    return kStatusSuccess;
}

pelmoStatus ipqResume(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusDaemonNotConnected;
    const pelmoStatus status = ipqStartTimerLocked(ipq, kKeepAliveTimer);
    return status == kStatusSuccess ? ipqStartReadingLocked(ipq) : status;
}

bool ipqSetBlocking(Ipq* ipq, bool blocking) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return ipq->blocking;
    socketSetMode(ipq->socket, blocking ? SocketMode::kBlocking : SocketMode::kNonBlocking);
    return std::exchange(ipq->blocking, blocking);
}

void ipqSetDeadline(Ipq* ipq, double steadySeconds) {
    socketSetDeadline(ipq->socket, steadySeconds);
}

void ipqInterrupt(Ipq* ipq) {
    socketInterrupt(ipq->socket);
}

IpqBacklog ipqBacklog(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return {};
    return {.messages = ipq->writes.messages,
            .bytes = writeQueueBytes(&ipq->writes),
            .bufferBytes = ipq->writes.bufferBytes};
}

IpqStatistics ipqReadStatistics(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return ipq->open ? ipq->reads : IpqStatistics{};
}

IpqStatistics ipqWriteStatistics(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return ipq->open ? ipq->written : IpqStatistics{};
}

uint32_t ipqPeerAddress(Ipq* ipq) {
    return socketPeerAddress(ipq->socket);
}

uint16_t ipqPeerPort(Ipq* ipq) {
    return socketPeerPort(ipq->socket);
}
