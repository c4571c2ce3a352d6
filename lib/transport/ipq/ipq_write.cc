// Writing: from a message to the connection, at once or when it takes more.

#include <algorithm>
#include <utility>

#include "lib/base/clock.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/library.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "lib/transport/socket/socket.h"

namespace {

// What the system has buffers for when it has none for more.
constexpr uint32_t kScarceBytes = 4096;

// One call writes on while the connection takes all, but not for so long that other connections of
// the thread starve.
constexpr uint32_t kMostWritesOfCall = 8;

constexpr double kWriterWaitSeconds = 1.0;

void onWritable(Socket* socket, void* closure);

// Has the socket tell when it takes more. `soon`: within the time of the flush timer is enough.
void armLocked(Ipq* ipq, bool soon) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->open || ipq->writeArmed) return;
    (void)ipqStartTimerLocked(ipq, kAgeTimer);
    if (!soon) {
        ipqRetain(ipq);
        ipq->writeArmed = socketOnWritable(ipq->socket, onWritable, ipq) == kStatusSuccess;
        if (ipq->writeArmed) return ipqStopTimerLocked(ipq, kFlushTimer);
        ipqRelease(ipq);
    }
    // A socket that can't have its event is tried again by the timer, and by the age check.
    (void)ipqStartTimerLocked(ipq, kFlushTimer);
}

enum class WriteStep { kMore, kRefused, kLost };

// The system is out of buffers: what it still takes depends on how much was asked.
WriteStep onScarcity(const Ipq* ipq, uint32_t asked, uint32_t* limit) PELMO_REQUIRES(ipq->lock) {
    if (asked > kScarceBytes) {
        *limit = kScarceBytes;
        return WriteStep::kMore;
    }
    return ipq->blocking ? WriteStep::kLost : WriteStep::kRefused;
}

void noteWriteLocked(Ipq* ipq, uint32_t asked, uint32_t sent) PELMO_REQUIRES(ipq->lock) {
    IpqStatistics& counts = ipq->written;
    ++counts.attempts;
    counts.mostWaiting = std::max(counts.mostWaiting, ipq->writes.messages);
    accountSize(ipq->accounting.writes, asked, sent);
}

void advanceLocked(Ipq* ipq, uint32_t sent) PELMO_REQUIRES(ipq->lock) {
    IpqStatistics& counts = ipq->written;
    const WriteProgress progress = writeQueueAdvance(&ipq->writes, sent);
    counts.messages += progress.messages;
    counts.bytes += sent;
    if (progress.endsWithin) ++counts.partials;
    if (sent == 0) ++counts.zeroSends;
}

// One send.
WriteStep writeOnceLocked(Ipq* ipq, uint32_t* limit) PELMO_REQUIRES(ipq->lock) {
    iovec entries[kMostSendEntries];
    GatherList list = {.capacity = kMostSendEntries, .count = 0, .total = 0, .entries = entries};
    writeQueueGather(&ipq->writes, &list, *limit);
    uint32_t sent = 0;
    const SocketCode code = socketWriteVector(ipq->socket, &list, &sent);
    noteWriteLocked(ipq, list.total, sent);
    if (code == kSocketDone) {
        advanceLocked(ipq, sent);
        return sent == list.total || ipq->blocking ? WriteStep::kMore : WriteStep::kRefused;
    }
    ++ipq->written.failures;
    // A blocking write that would block has met its deadline.
    if (code == kSocketWouldBlock) return ipq->blocking ? WriteStep::kLost : WriteStep::kRefused;
    return code == kSocketNoBuffers ? onScarcity(ipq, list.total, limit) : WriteStep::kLost;
}

// Goes on until nothing waits, the socket refuses, or `most` sends were made.
pelmoStatus writeLocked(Ipq* ipq, uint32_t most) PELMO_REQUIRES(ipq->lock) {
    uint32_t limit = kMostSendBytes;
    for (uint32_t i = 0; !writeQueueIsEmpty(&ipq->writes); ++i) {
        const WriteStep step = i < most ? writeOnceLocked(ipq, &limit) : WriteStep::kRefused;
        if (step == WriteStep::kLost) {
            writeQueueClear(&ipq->writes);
            return kStatusInvalidIoSource;
        }
        if (step == WriteStep::kRefused) {
            armLocked(ipq, false);
            return kStatusSuccess;
        }
    }
    ipqDisarmLocked(ipq);
    return kStatusSuccess;
}

bool isFullLocked(const Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    return ipq->writes.ringBytes > ipq->highWaterBytes;
}

void wakeWritersLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (ipq->writersWaiting != 0 && !isFullLocked(ipq)) Cond_Broadcast(&ipq->writerWakeup);
}

// Waits, with the lock released, until there is room. The wait ends at a lost connection as well:
// its owner closes the queue, and what is queued then goes with it.
void awaitRoomLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (IpqWorkerScope::isWorker()) return;
    while (ipq->open && !ipq->failed && ipq->blockWhenFull && libraryIsOpen() &&
           isFullLocked(ipq)) {
        armLocked(ipq, false);
        ++ipq->writersWaiting;
        (void)Cond_TimedWait(&ipq->writerWakeup, &ipq->lock, kWriterWaitSeconds);
        --ipq->writersWaiting;
    }
}

// Queues a piece without writing it.
pelmoStatus addLocked(Ipq* ipq, const WritePiece& piece) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->open) return kStatusDaemonNotConnected;
    if (ipq->blockWhenFull) {
        awaitRoomLocked(ipq);
        if (!ipq->open) return kStatusDaemonNotConnected;
    }
    if (ipq->failed) return kStatusInvalidIoSource;
    return writeQueueAdd(&ipq->writes, piece, clockSteadySeconds());
}

// Writes what was added, unless something else will.
pelmoStatus writeSoonLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (ipq->blocking) return writeLocked(ipq, UINT32_MAX);
    if (ipq->writeArmed) return kStatusSuccess;
    const bool isLarge = writeQueueBytes(&ipq->writes) >= kMostSendBytes;
    if (isLarge) return ipqWriteLocked(ipq);
    if (ipq->holds != 0) return kStatusSuccess;
    if (ipq->batchMode) {
        armLocked(ipq, true);
        return kStatusSuccess;
    }
    return ipqWriteLocked(ipq);
}

// The stretch of a buffer that a message occupies.
pelmoStatus pieceOf(const Ipq* ipq, pelmoMsg* message, bool urgent, WritePiece* out) {
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    Buffer* const buffer = msgFlushBuffer(message);
    if (message->length > ipq->mostMessageBytes) return kStatusInvalidSize;
    *out = {.buffer = buffer,
            .offset = message->base,
            .length = message->length,
            .count = 1,
            .urgent = urgent};
    return kStatusSuccess;
}

// Does the piece lie behind the other one in the same buffer?
bool continues(const WritePiece& first, const WritePiece& next) {
    return first.buffer == next.buffer && first.offset + first.length == next.offset;
}

void onWritable(Socket*, void* closure) {
    const IpqWorkerScope worker;
    auto* const ipq = static_cast<Ipq*>(closure);
    ipqOnFlush(ipq);
}

}  // namespace

void ipqDisarmLocked(Ipq* ipq) {
    if (std::exchange(ipq->writeArmed, false) &&
        socketCancelWritable(ipq->socket, ipqReleaseClosure) != kStatusSuccess) {
        ipqRelease(ipq);
    }
    ipqStopTimerLocked(ipq, kFlushTimer);
    ipqStopTimerLocked(ipq, kAgeTimer);
}

pelmoStatus ipqWriteLocked(Ipq* ipq) {
    ipq->activity = true;
    return writeLocked(ipq, kMostWritesOfCall);
}

pelmoStatus ipqWriteAllLocked(Ipq* ipq) {
    return writeLocked(ipq, UINT32_MAX);
}

void ipqSendCloseNoticeLocked(Ipq* ipq) {
    if (!writeQueueIsEmpty(&ipq->writes)) return;
    const WritePiece notice = {.buffer = ipq->closeBuffer,
                               .offset = 0,
                               .length = kMessageHeadBytes,
                               .count = 0,
                               .urgent = false};
    // Without memory the peer sees the end of the connection alone.
    if (writeQueueAdd(&ipq->writes, notice, 0) == kStatusSuccess && !ipq->blocking) {
        (void)writeLocked(ipq, 1);
    }
}

void ipqOnFlush(Ipq* ipq) {
    pelmoStatus status = kStatusSuccess;
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->open || ipq->failed) return;
        status = ipqWriteLocked(ipq);
        wakeWritersLocked(ipq);
    }
    if (status != kStatusSuccess) ipqFail(ipq);
}

void ipqOnAge(Ipq* ipq) {
    AgeReport report{};
    IpqProducerCallback callback = nullptr;
    void* closure = nullptr;
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->open || ipq->failed) return;
        if (!ipq->writeArmed && ipq->holds == 0) armLocked(ipq, false);
        if (ipq->writes.ageSeconds <= 0 && ipq->writes.byteLimit == 0) return;
        report = writeQueueCheckAge(&ipq->writes, clockSteadySeconds());
        callback = ipq->producerCallback;
        closure = ipq->producerClosure;
        wakeWritersLocked(ipq);
    }
    if (callback == nullptr || report.level == 0) return;
    callback(ipq, report.level, report.waiting, report.droppedMessages, report.droppedBytes,
             closure);
}

// The keep-alive's own write isn't activity: an idle connection gets one at each tick.
void ipqOnKeepAlive(Ipq* ipq) {
    pelmoStatus status = kStatusSuccess;
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->open || ipq->failed || std::exchange(ipq->activity, false)) return;
        if (writeQueueIsEmpty(&ipq->writes)) {
            const WritePiece unit = {.buffer = ipq->keepAliveBuffer,
                                     .offset = 0,
                                     .length = kMessageHeadBytes,
                                     .count = 0,
                                     .urgent = false};
            status = writeQueueAdd(&ipq->writes, unit, clockSteadySeconds());
        }
        if (status == kStatusSuccess) status = writeLocked(ipq, kMostWritesOfCall);
    }
    if (status != kStatusSuccess) ipqFail(ipq);
}

pelmoStatus ipqSend(Ipq* ipq, pelmoMsg* message, bool urgent) {
    return ipqSendVector(ipq, {&message, 1}, urgent);
}

pelmoStatus ipqSendVector(Ipq* ipq, std::span<pelmoMsg* const> messages, bool urgent) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusDaemonNotConnected;
    pelmoStatus status = kStatusSuccess;
    ++ipq->holds;
    for (size_t next = 0; next < messages.size() && status == kStatusSuccess;) {
        WritePiece run;
        status = pieceOf(ipq, messages[next++], urgent, &run);
        WritePiece piece;
        while (status == kStatusSuccess && next < messages.size() &&
               pieceOf(ipq, messages[next], urgent, &piece) == kStatusSuccess &&
               continues(run, piece)) {
            run.length += piece.length;
            ++run.count;
            ++next;
        }
        if (status == kStatusSuccess) status = addLocked(ipq, run);
        if (status == kStatusSuccess) status = writeSoonLocked(ipq);
    }
    --ipq->holds;
    // What was queued ahead of a failure is written all the same.
    if (writeQueueIsEmpty(&ipq->writes) || !ipq->open || ipq->failed) return status;
    const pelmoStatus written = writeSoonLocked(ipq);
    return status == kStatusSuccess ? written : status;
}

pelmoStatus ipqHold(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->open) return kStatusDaemonNotConnected;
    ++ipq->holds;
    return kStatusSuccess;
}

pelmoStatus ipqFlush(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (ipq->holds != 0) --ipq->holds;
    if (!ipq->open) return kStatusDaemonNotConnected;
    if (ipq->holds != 0 || ipq->writeArmed || writeQueueIsEmpty(&ipq->writes)) {
        return kStatusSuccess;
    }
    return ipqWriteLocked(ipq);
}
