#include "lib/transport/ipq/ipq.h"

#include <sys/socket.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/wire.h"
#include "lib/runtime/event.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/no_wait.h"
#include "lib/transport/ipq/ipq_internal.h"

namespace {

constexpr double kKeepAliveSeconds = 60.0;

// Creating

struct Terms {
    uint32_t mostMessageBytes = kHelloMostBytes;
    uint32_t byteLimit = 0;
};

// A limit of 0 means the largest.
bool readTerms(Terms* out, const HelloFrame* frame) {
    if (frame == nullptr) return true;
    const HelloTerms terms = helloRead(*frame);
    if (terms.version != kHelloVersion || terms.limitB > kHelloMostBytes) return false;
    if (terms.limitA != 0 && terms.limitA != kHelloMostBytes) return false;
    if (terms.limitB != 0) out->mostMessageBytes = terms.limitB;
    out->byteLimit = terms.queueLimit;
    return true;
}

Ipq* makeRecord() {
    void* const block = std::calloc(1, sizeof(Ipq));
    if (block == nullptr) return nullptr;
    auto* const made = new (block) Ipq{};
    if (Lock_Init(&made->lock, LockRank::kProcessQueue) != kStatusSuccess) {
        std::free(block);
        return nullptr;
    }
    if (Cond_Init(&made->writerWakeup) != kStatusSuccess) {
        Lock_Destroy(&made->lock);
        std::free(block);
        return nullptr;
    }
    made->references.store(1, std::memory_order_relaxed);
    return made;
}

// No other thread knows it yet.
void fillRecord(Ipq* made, const Terms& terms, uint32_t queueId, Socket* socket)
    PELMO_UNCHECKED_LOCKING {
    made->socket = socket;
    made->queueId = queueId;
    made->mostMessageBytes = terms.mostMessageBytes;
    made->waitLimit = kUsualWaitLimitBytes;
    accountingInit(&made->accounting);
    writeQueueInit(&made->queue, terms.byteLimit);
    cutterInit(&made->cutter, kReadBufferBytes, terms.mostMessageBytes);
    socketSetMode(socket, SocketMode::kNonBlocking);
}

// No other thread can reach a queue whose last reference is gone.
void destruct(Ipq* ipq) PELMO_UNCHECKED_LOCKING {
    socketDestroy(ipq->socket);
    cutterFree(&ipq->cutter);
    dpaDestroy(ipq->batch);
    writeQueueClear(&ipq->queue);
    accountingFree(&ipq->accounting);
    Cond_Destroy(&ipq->writerWakeup);
    Lock_Destroy(&ipq->lock);
    if (ipq->closeCallback != nullptr) ipq->closeCallback(ipq->readClosure);
    std::free(ipq);
}

// Timers

void onTimerGone(uint32_t, void* ipq) {
    ipqHandlerGone(ipq);
}

// It has no messages, and its own write is no sign of life.
pelmoStatus writeKeepAliveLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (writeQueueIsEmpty(&ipq->queue) && !ipq->isLost) {
        Buffer* const unit = bufferCreate(kMessageHeadBytes);
        if (unit == nullptr) return kStatusSuccess;
        storeBe32At(unit->data, kMessageHeadBytes);
        storeBe32At(unit->data + kMessageMagicOffset, kMessageMagic);
        const WritePiece piece = {
            .buffer = unit, .offset = 0, .length = kMessageHeadBytes, .count = 0, .urgent = false};
        (void)writeQueueAdd(&ipq->queue, piece, kWriteTimeUnknown);
        bufferRelease(unit);
    }
    const pelmoStatus status = ipqWriteLocked(ipq);
    ipq->hadActivity = false;
    return status;
}

void onKeepAliveTimer(uint32_t timer, pelmoMsg*, void* closure) {
    auto* const ipq = static_cast<Ipq*>(closure);
    const NoWait mark;
    pelmoStatus status = kStatusSuccess;
    {
        const LockGuard guard(ipq->lock);
        if (timer != ipq->keepAliveTimer) return;
        if (!std::exchange(ipq->hadActivity, false)) status = writeKeepAliveLocked(ipq);
    }
    if (status != kStatusSuccess) ipqTellWriteLoss(ipq);
}

pelmoStatus startKeepAliveLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    return ipqStartTimerLocked(ipq, &ipq->keepAliveTimer, onKeepAliveTimer, kKeepAliveSeconds);
}

}  // namespace

void ipqHandlerGone(void* ipq) {
    ipqRelease(static_cast<Ipq*>(ipq));
}

pelmoStatus ipqStartTimerLocked(Ipq* ipq,
                                uint32_t* timer,
                                IpqTimerCallback callback,
                                double seconds) {
    if (*timer != kNoId) return kStatusSuccess;
    ipqRetain(ipq);
    const pelmoStatus status = pelmoEvent_CreateTimer(timer, kTimerQueueId, callback, seconds, ipq);
    if (status != kStatusSuccess) ipqRelease(ipq);
    return status;
}

// The library's close ends all events, so the timer may be gone already. The caller holds a
// reference, so that the timer's isn't the last.
void ipqEndTimerLocked(Ipq* ipq, uint32_t* timer) {
    const uint32_t ended = std::exchange(*timer, kNoId);
    if (ended == kNoId) return;
    if (pelmoEvent_DestroyEx(ended, onTimerGone) != kStatusSuccess) ipqRelease(ipq);
}

void ipqEndLocked(Ipq* ipq) {
    ipq->isOpen = false;
    ipqDisarmReadLocked(ipq);
    ipqDisarmLocked(ipq);
    ipqEndTimerLocked(ipq, &ipq->keepAliveTimer);
    Cond_Broadcast(&ipq->writerWakeup);
}

void ipqLoseLocked(Ipq* ipq) {
    if (ipq->isLost) return;
    ipq->isLost = true;
    ipq->leftAtLoss = ipq->added - std::min<uint64_t>(ipq->added, writeQueueUnsent(&ipq->queue));
    ipqNoteLossesLocked(ipq);
    writeQueueClear(&ipq->queue);
    ipqDisarmLocked(ipq);
    Cond_Broadcast(&ipq->writerWakeup);
    // A write may fail where reads would only wait: from here on they come to an end.
    shutdown(socketHandle(ipq->socket), SHUT_RD);
}

void ipqTellLoss(Ipq* ipq) {
    IpqErrorCallback callback;
    void* closure;
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->isOpen || ipq->errorIsReported || ipq->errorCallback == nullptr) return;
        ipq->errorIsReported = true;
        callback = ipq->errorCallback;
        closure = ipq->errorClosure;
    }
    callback(ipq, closure);
}

void ipqTellWriteLoss(Ipq* ipq) {
    {
        const LockGuard guard(ipq->lock);
        if (ipq->readIsArmed) return;
    }
    ipqTellLoss(ipq);
}

pelmoStatus ipqCreate(Ipq** out, const HelloFrame* frame, uint32_t queueId, Socket* socket) {
    Terms terms;
    const bool areTermsGood = readTerms(&terms, frame);
    Ipq* const made = areTermsGood ? makeRecord() : nullptr;
    if (made == nullptr) {
        socketDestroy(socket);
        return areTermsGood ? kStatusNoMemory : kStatusInvalidTransport;
    }
    fillRecord(made, terms, queueId, socket);
    pelmoStatus status;
    {
        const LockGuard guard(made->lock);
        status = startKeepAliveLocked(made);
        made->isOpen = status == kStatusSuccess;
    }
    if (status != kStatusSuccess) {
        ipqRelease(made);
        return status;
    }
    *out = made;
    return kStatusSuccess;
}

void ipqRetain(Ipq* ipq) {
    ipq->references.fetch_add(1, std::memory_order_relaxed);
}

void ipqRelease(Ipq* ipq) {
    if (ipq->references.fetch_sub(1, std::memory_order_acq_rel) == 1) destruct(ipq);
}

pelmoStatus ipqResume(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    const pelmoStatus status = startKeepAliveLocked(ipq);
    return status == kStatusSuccess ? ipqArmReadLocked(ipq) : status;
}

pelmoStatus ipqSetErrorCallback(Ipq* ipq, IpqErrorCallback callback, void* closure) {
    const LockGuard guard(ipq->lock);
    ipq->errorCallback = callback;
    ipq->errorClosure = closure;
    return kStatusSuccess;
}

pelmoStatus ipqSetBatchMode(Ipq* ipq, uint32_t mode) {
    const LockGuard guard(ipq->lock);
    if (mode == 0 && ipq->isBatching) return kStatusNotPermitted;
    ipq->isBatching = mode != 0;
    return kStatusSuccess;
}

pelmoStatus ipqSetBlockWhenFull(Ipq* ipq, bool block) {
    const LockGuard guard(ipq->lock);
    ipq->blocksWhenFull = block;
    if (!block) Cond_Broadcast(&ipq->writerWakeup);
    return kStatusSuccess;
}

void ipqSetWaitLimit(Ipq* ipq, uint32_t bytes) {
    const LockGuard guard(ipq->lock);
    ipq->waitLimit = bytes != 0 ? bytes : kUsualWaitLimitBytes;
    Cond_Broadcast(&ipq->writerWakeup);
}

pelmoStatus ipqSetAgeCheck(Ipq* ipq,
                           bool discard,
                           double ageSeconds,
                           uint32_t byteLimit,
                           IpqProducerCallback callback,
                           void* closure) {
    if (!(ageSeconds >= 0)) return kStatusInvalidArgument;
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return kStatusInvalidArgument;
    ipq->queue.discards = discard;
    ipq->queue.ageSeconds = ageSeconds;
    ipq->queue.byteLimit = byteLimit;
    ipq->producerCallback = callback;
    ipq->producerClosure = closure;
    ipqWatchAgeLocked(ipq);
    return kStatusSuccess;
}

bool ipqSetBlocking(Ipq* ipq, bool blocking) {
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return ipq->isBlocking;
    socketSetMode(ipq->socket, blocking ? SocketMode::kBlocking : SocketMode::kNonBlocking);
    return std::exchange(ipq->isBlocking, blocking);
}

void ipqSetDeadline(Ipq* ipq, double steadySeconds) {
    socketSetDeadline(ipq->socket, steadySeconds);
}

void ipqInterrupt(Ipq* ipq) {
    socketInterrupt(ipq->socket);
}

IpqBacklog ipqBacklog(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return {};
    return {.messages = ipq->queue.messages,
            .bytes = writeQueueBytes(&ipq->queue),
            .bufferBytes = ipq->queue.bufferBytes,
            .unfinishedBytes = ipq->unfinishedBytes};
}

IpqStatistics ipqReadStatistics(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return ipq->isOpen ? ipq->read : IpqStatistics{};
}

IpqStatistics ipqWriteStatistics(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return ipq->isOpen ? ipq->written : IpqStatistics{};
}

uint32_t ipqPeerAddress(Ipq* ipq) {
    return socketPeerAddress(ipq->socket);
}

uint16_t ipqPeerPort(Ipq* ipq) {
    return socketPeerPort(ipq->socket);
}
