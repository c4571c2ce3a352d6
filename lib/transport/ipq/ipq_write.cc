// Writing: sends, batches, waits for the connection, the last bytes of a graceful close.

#include <algorithm>
#include <utility>

#include "lib/base/clock.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/no_wait.h"
#include "lib/transport/ipq/ipq_internal.h"

namespace {

// One call writes on while the connection takes all, but not for so long that other connections of
// its thread starve.
constexpr uint32_t kMostSendsOfCall = 8;

// A call of the system costs as much as copying twenty small messages. Once so many plain sends
// have come in a row, each this soon after the one before it, the next ones are gathered, and
// written once there are enough of them; a timer writes the rest.
constexpr uint64_t kCloseNanoseconds = 50'000;
constexpr uint32_t kCloseSends = 16;
constexpr uint32_t kGatherBytes = 32'768;
constexpr double kGatherSeconds = 0.001;

constexpr double kFlushSeconds = 0.025;  // in batch mode
constexpr double kAgeCheckSeconds = 0.5;
constexpr double kWaitStepSeconds = 1.0;
constexpr uint32_t kScarceSendBytes = 4096;  // where the system is short of buffers
constexpr uint8_t kCloseNotice[kMessageHeadBytes] = {};

// One send

void noteSendLocked(Ipq* ipq, uint32_t asked, uint32_t sent) PELMO_REQUIRES(ipq->lock) {
    ipq->trailingBytes = ipq->queue.messages == 0 ? ipq->trailingBytes + sent : 0;
    const WriteProgress progress = writeQueueAdvance(&ipq->queue, sent);
    ipq->written.bytes += sent;
    ipq->written.messages += progress.messages;
    if (progress.endsWithin) ++ipq->written.partials;
    if (sent == 0) ++ipq->written.zeroSends;
    accountSize(ipq->accounting.writes, asked, sent);
}

struct Send {
    SocketCode code;
    uint32_t asked;
    uint32_t sent;
};

Send sendSomeLocked(Ipq* ipq, uint32_t mostBytes) PELMO_REQUIRES(ipq->lock) {
    iovec entries[kMostSendEntries];  // not zeroed
    GatherList list = {.capacity = kMostSendEntries, .count = 0, .total = 0, .entries = entries};
    writeQueueGather(&ipq->queue, &list, mostBytes);
    ++ipq->written.attempts;
    ipq->written.mostWaiting = std::max(ipq->written.mostWaiting, ipq->queue.messages);
    ipq->hadActivity = true;
    Send send = {.code = kSocketDone, .asked = list.total, .sent = 0};
    send.code = socketWriteVector(ipq->socket, &list, &send.sent);
    if (send.code == kSocketDone) {
        noteSendLocked(ipq, send.asked, send.sent);
    } else if (send.code == kSocketWouldBlock || send.code == kSocketNoBuffers) {
        ++ipq->written.failures;
    }
    return send;
}

// Waits

void onWritable(Socket*, void* closure);
void onFlushTimer(uint32_t timer, pelmoMsg*, void* closure);
void onAgeTimer(uint32_t timer, pelmoMsg*, void* closure);

void readClockLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    ipq->now = clockSteadySeconds();
    writeQueueStamp(&ipq->queue, ipq->now);
}

// Without memory for it the next send, or at the latest the keep-alive, tries again to write.
void armLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (ipq->writeIsArmed) return;
    readClockLocked(ipq);
    ipqWatchAgeLocked(ipq);
    ipqRetain(ipq);
    ipq->writeIsArmed = socketOnWritable(ipq->socket, onWritable, ipq) == kStatusSuccess;
    if (!ipq->writeIsArmed) ipqRelease(ipq);
}

// For what no flush writes.
pelmoStatus awaitMoreLocked(Ipq* ipq, double seconds) PELMO_REQUIRES(ipq->lock) {
    readClockLocked(ipq);
    ipqWatchAgeLocked(ipq);
    const pelmoStatus status = ipqStartTimerLocked(ipq, &ipq->flushTimer, onFlushTimer, seconds);
    return status == kStatusSuccess ? status : ipqWriteLocked(ipq);
}

void disarmWriteLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->writeIsArmed) return;
    ipq->writeIsArmed = false;
    if (socketCancelWritable(ipq->socket, ipqHandlerGone) != kStatusSuccess) ipqRelease(ipq);
}

bool hasRoomLocked(const Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    return ipq->queue.ringBytes <= ipq->waitLimit;
}

pelmoStatus usableLocked(const Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    return ipq->isLost ? kStatusInvalidIoSource : kStatusSuccess;
}

pelmoStatus awaitRoomLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    while (ipq->blocksWhenFull && !hasRoomLocked(ipq) && threadMayWait()) {
        armLocked(ipq);
        ++ipq->writersWaiting;
        (void)Cond_TimedWait(&ipq->writerWakeup, &ipq->lock, kWaitStepSeconds);
        --ipq->writersWaiting;
        const pelmoStatus status = usableLocked(ipq);
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

// Handlers

bool runWritableLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->isOpen || ipq->isLost) return true;
    readClockLocked(ipq);
    const pelmoStatus status = ipqWriteLocked(ipq);
    if (ipq->writersWaiting != 0 && hasRoomLocked(ipq)) Cond_Broadcast(&ipq->writerWakeup);
    return status != kStatusInvalidIoSource;
}

void onWritable(Socket*, void* closure) {
    auto* const ipq = static_cast<Ipq*>(closure);
    const NoWait mark;
    bool isFine;
    {
        const LockGuard guard(ipq->lock);
        isFine = runWritableLocked(ipq);
    }
    if (!isFine) ipqTellWriteLoss(ipq);
}

void onFlushTimer(uint32_t timer, pelmoMsg*, void* closure) {
    auto* const ipq = static_cast<Ipq*>(closure);
    const NoWait mark;
    bool isFine = true;
    {
        const LockGuard guard(ipq->lock);
        if (timer != ipq->flushTimer) return;
        if (writeQueueIsEmpty(&ipq->queue)) {
            ipqEndTimerLocked(ipq, &ipq->flushTimer);
        } else if (!ipq->writeIsArmed) {
            isFine = runWritableLocked(ipq);
        }
    }
    if (!isFine) ipqTellWriteLoss(ipq);
}

void onAgeTimer(uint32_t timer, pelmoMsg*, void* closure) {
    auto* const ipq = static_cast<Ipq*>(closure);
    const NoWait mark;
    AgeReport report;
    IpqProducerCallback callback;
    void* producerClosure;
    {
        const LockGuard guard(ipq->lock);
        if (timer != ipq->ageTimer) return;
        if (writeQueueIsEmpty(&ipq->queue)) return ipqEndTimerLocked(ipq, &ipq->ageTimer);
        readClockLocked(ipq);
        report = writeQueueCheckAge(&ipq->queue, ipq->now);
        if (ipq->writersWaiting != 0 && hasRoomLocked(ipq)) Cond_Broadcast(&ipq->writerWakeup);
        callback = ipq->producerCallback;
        producerClosure = ipq->producerClosure;
    }
    if (report.level == 0 || callback == nullptr) return;
    callback(ipq, report.level, report.waiting, report.droppedMessages, report.droppedBytes,
             producerClosure);
}

// Sends

bool isHeldLocked(const Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    return ipq->holds != 0 || ipq->batches != 0;
}

// While nothing makes the clock known, a record's time is set when it has to wait.
double timeOfAddLocked(const Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    const bool isKnown = isHeldLocked(ipq) || !writeQueueIsEmpty(&ipq->queue);
    return isKnown ? ipq->now : kWriteTimeUnknown;
}

void enterLocked(Ipq* ipq, IpqAdding* adding) PELMO_REQUIRES(ipq->lock) {
    *adding = {.before = ipq->added, .count = 0, .next = ipq->adding};
    ipq->adding = adding;
}

void leaveLocked(Ipq* ipq, const IpqAdding* adding) PELMO_REQUIRES(ipq->lock) {
    IpqAdding** place = &ipq->adding;
    while (*place != adding)
        place = &(*place)->next;
    *place = adding->next;
}

pelmoStatus addLocked(Ipq* ipq, const WritePiece& piece, IpqAdding* adding)
    PELMO_REQUIRES(ipq->lock) {
    pelmoStatus status = usableLocked(ipq);
    if (status == kStatusSuccess && ipq->blocksWhenFull) status = awaitRoomLocked(ipq);
    if (status != kStatusSuccess) return status;
    status = writeQueueAdd(&ipq->queue, piece, timeOfAddLocked(ipq));
    if (status != kStatusSuccess) return status;
    ipq->added += piece.count;
    adding->count += piece.count;
    return status;
}

bool isOfStreakLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    const uint64_t now = clockMonotonicNanoseconds();
    const bool isClose = now - std::exchange(ipq->lastSendAt, now) < kCloseNanoseconds;
    ipq->closeSends = isClose ? std::min(ipq->closeSends + 1, kCloseSends + 1) : 0;
    return ipq->closeSends > kCloseSends;
}

// The time that it takes is no pause.
pelmoStatus writePlainLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    const pelmoStatus status = ipqWriteLocked(ipq);
    ipq->lastSendAt = clockMonotonicNanoseconds();
    return status;
}

// No more is gathered than may wait without a sender being held up or a message dropped as too
// much.
bool isGatheredLocked(const Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    const uint32_t limit = ipq->queue.byteLimit;
    return writeQueueBytes(&ipq->queue) >= kGatherBytes || !hasRoomLocked(ipq) ||
           (limit != 0 && ipq->queue.ringBytes > limit);
}

// The timer has been started, and the time of what waits set, by the first message gathered.
pelmoStatus gatherLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (isGatheredLocked(ipq)) return writePlainLocked(ipq);
    const bool isWatched = ipq->flushTimer != kNoId && ipq->queue.current.time != kWriteTimeUnknown;
    return isWatched ? kStatusSuccess : awaitMoreLocked(ipq, kGatherSeconds);
}

// What was added goes at once, unless something holds it back.
pelmoStatus writeAddedLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (ipq->isBlocking) return ipqWriteLocked(ipq);
    const bool isOfStreak = !ipq->isBatching && !isHeldLocked(ipq) && isOfStreakLocked(ipq);
    if (ipq->writeIsArmed) return kStatusSuccess;
    if (ipq->holds != 0 && hasRoomLocked(ipq)) return kStatusSuccess;
    if (writeQueueBytes(&ipq->queue) >= kMostSendBytes) return ipqWriteLocked(ipq);
    if (ipq->batches != 0) return kStatusSuccess;
    if (ipq->isBatching) return awaitMoreLocked(ipq, kFlushSeconds);
    return isOfStreak ? gatherLocked(ipq) : writePlainLocked(ipq);
}

pelmoStatus pieceOf(WritePiece* out, const Ipq* ipq, pelmoMsg* message, bool urgent) {
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    if (message->length > ipq->mostMessageBytes) return kStatusInvalidSize;
    *out = {.buffer = msgFlushBuffer(message),
            .offset = message->base,
            .length = message->length,
            .count = 1,
            .urgent = urgent};
    return kStatusSuccess;
}

// Does the message follow the piece in its buffer?
bool extends(const WritePiece& piece, const WritePiece& next) {
    return next.buffer == piece.buffer && next.offset == piece.offset + piece.length;
}

using Messages = std::span<pelmoMsg* const>;

pelmoStatus addInOrderLocked(Ipq* ipq, Messages messages, IpqAdding* adding)
    PELMO_REQUIRES(ipq->lock) {
    WritePiece piece = {};
    pelmoStatus status = kStatusSuccess;
    for (pelmoMsg* const message : messages) {
        WritePiece next;
        status = pieceOf(&next, ipq, message, false);
        if (status != kStatusSuccess) break;
        if (piece.count != 0 && extends(piece, next)) {
            piece.length += next.length;
            ++piece.count;
            continue;
        }
        const WritePiece whole = std::exchange(piece, next);
        if (whole.count != 0) status = addLocked(ipq, whole, adding);
        if (status != kStatusSuccess) return status;
    }
    const pelmoStatus last = piece.count != 0 ? addLocked(ipq, piece, adding) : kStatusSuccess;
    return last != kStatusSuccess ? last : status;
}

// Each urgent message passes those that wait, so the last one goes first; but for the first one of
// all, which is written before them if nothing waits.
pelmoStatus addUrgentLocked(Ipq* ipq, Messages messages, IpqAdding* adding)
    PELMO_REQUIRES(ipq->lock) {
    const auto add = [ipq, adding](pelmoMsg* message) PELMO_REQUIRES(ipq->lock) {
        WritePiece piece;
        const pelmoStatus status = pieceOf(&piece, ipq, message, true);
        return status == kStatusSuccess ? addLocked(ipq, piece, adding) : status;
    };
    pelmoStatus status = kStatusSuccess;
    if (writeQueueIsEmpty(&ipq->queue)) {
        status = add(messages.front());
        messages = messages.subspan(1);
    }
    while (!messages.empty() && status == kStatusSuccess) {
        status = add(messages.back());
        messages = messages.first(messages.size() - 1);
    }
    return status;
}

pelmoStatus beginLocked(Ipq* ipq, uint32_t* depth) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    if (!isHeldLocked(ipq)) readClockLocked(ipq);
    ++*depth;
    return kStatusSuccess;
}

// What was sent before isn't held. Where it can't be written, reading comes to the connection's
// end.
pelmoStatus beginHeldLocked(Ipq* ipq, uint32_t* depth) PELMO_REQUIRES(ipq->lock) {
    if (!isHeldLocked(ipq) && !ipq->isBatching) {
        ipqEndTimerLocked(ipq, &ipq->flushTimer);
        if (!ipq->writeIsArmed && usableLocked(ipq) == kStatusSuccess) (void)ipqWriteLocked(ipq);
    }
    return beginLocked(ipq, depth);
}

pelmoStatus endLocked(Ipq* ipq, uint32_t* depth) PELMO_REQUIRES(ipq->lock) {
    const pelmoStatus status = usableLocked(ipq);
    if (*depth != 0) --*depth;
    const bool goesOn = isHeldLocked(ipq) || ipq->writeIsArmed;
    return status != kStatusSuccess || goesOn ? status : ipqWriteLocked(ipq);
}

// All of them can be queued.
pelmoStatus checkAll(const Ipq* ipq, Messages messages) {
    pelmoStatus status = kStatusSuccess;
    for (pelmoMsg* const message : messages) {
        WritePiece piece;
        status = pieceOf(&piece, ipq, message, false);
        if (status != kStatusSuccess) break;
    }
    return status;
}

// A part of it breaks the stream.
SocketCode sendNotice(Ipq* ipq) {
    uint32_t sent = 0;
    const SocketCode code = socketWrite(ipq->socket, kCloseNotice, sizeof(kCloseNotice), &sent);
    return code == kSocketDone && sent != sizeof(kCloseNotice) ? kSocketOtherError : code;
}

}  // namespace

pelmoStatus ipqWriteLocked(Ipq* ipq) {
    uint32_t mostBytes = kMostSendBytes;
    for (uint32_t sends = 1; !ipq->isLost && !writeQueueIsEmpty(&ipq->queue); ++sends) {
        const Send send = sendSomeLocked(ipq, mostBytes);
        if (send.code == kSocketDone) {
            // After a send that was cut, the next one would only fail.
            const bool goesOn = send.sent == send.asked && sends < kMostSendsOfCall;
            if (goesOn || ipq->isBlocking) continue;
        } else if (send.code == kSocketNoBuffers && send.asked > kScarceSendBytes) {
            mostBytes = kScarceSendBytes;
            continue;
        } else if (send.code == kSocketWouldBlock) {
            if (ipq->isBlocking) return kStatusTimeout;
        } else if (send.code != kSocketNoBuffers || ipq->isBlocking) {
            ipqLoseLocked(ipq);
            break;
        }
        if (!writeQueueIsEmpty(&ipq->queue)) {
            armLocked(ipq);
            return kStatusSuccess;
        }
    }
    disarmWriteLocked(ipq);
    return ipq->isLost ? kStatusInvalidIoSource : kStatusSuccess;
}

void ipqDisarmLocked(Ipq* ipq) {
    disarmWriteLocked(ipq);
    ipqEndTimerLocked(ipq, &ipq->flushTimer);
    ipqEndTimerLocked(ipq, &ipq->ageTimer);
}

void ipqWatchAgeLocked(Ipq* ipq) {
    const bool isWanted = ipq->queue.ageSeconds > 0 || ipq->queue.byteLimit != 0;
    if (!isWanted || writeQueueIsEmpty(&ipq->queue)) return;
    (void)ipqStartTimerLocked(ipq, &ipq->ageTimer, onAgeTimer, kAgeCheckSeconds);
}

bool ipqWriteLast(Ipq* ipq, bool* isDone) PELMO_UNCHECKED_LOCKING {  // no other thread uses it
    uint32_t mostBytes = kMostSendBytes;
    SocketCode code = kSocketDone;
    for (uint32_t sends = 0; sends < kMostSendsOfCall && !writeQueueIsEmpty(&ipq->queue); ++sends) {
        code = sendSomeLocked(ipq, mostBytes).code;
        if (code == kSocketNoBuffers && mostBytes > kScarceSendBytes) {
            mostBytes = kScarceSendBytes;
        } else if (code != kSocketDone) {
            return code == kSocketWouldBlock || code == kSocketNoBuffers;
        }
    }
    if (!writeQueueIsEmpty(&ipq->queue)) return true;
    code = sendNotice(ipq);
    *isDone = code == kSocketDone;
    return *isDone || code == kSocketWouldBlock || code == kSocketNoBuffers;
}

bool ipqSendNotice(Ipq* ipq) {
    return sendNotice(ipq) == kSocketDone;
}

pelmoStatus ipqSend(Ipq* ipq, pelmoMsg* message, bool urgent) {
    WritePiece piece;
    pelmoStatus status = pieceOf(&piece, ipq, message, urgent);
    if (status != kStatusSuccess) return status;
    const LockGuard guard(ipq->lock);
    IpqAdding adding;
    enterLocked(ipq, &adding);
    status = addLocked(ipq, piece, &adding);
    if (status == kStatusSuccess) status = writeAddedLocked(ipq);
    leaveLocked(ipq, &adding);
    return status;
}

pelmoStatus ipqSendVector(Ipq* ipq,
                          std::span<pelmoMsg* const> messages,
                          bool urgent,
                          uint32_t* taken) {
    uint32_t ignored;
    if (taken == nullptr) taken = &ignored;
    *taken = 0;
    if (messages.empty()) return kStatusSuccess;
    pelmoStatus status = checkAll(ipq, messages);
    if (status != kStatusSuccess) return status;
    const LockGuard guard(ipq->lock);
    status = usableLocked(ipq);
    if (status == kStatusSuccess) status = beginLocked(ipq, &ipq->batches);
    if (status != kStatusSuccess) return status;
    IpqAdding adding;
    enterLocked(ipq, &adding);
    status =
        urgent ? addUrgentLocked(ipq, messages, &adding) : addInOrderLocked(ipq, messages, &adding);
    --ipq->batches;
    // What was added before a failure is sent all the same.
    const bool isUsable = usableLocked(ipq) == kStatusSuccess;
    const pelmoStatus written = isUsable ? writeAddedLocked(ipq) : kStatusSuccess;
    if (status == kStatusSuccess) status = written;
    leaveLocked(ipq, &adding);
    *taken = status == kStatusSuccess ? adding.count : ipqLeftOfLocked(ipq, adding);
    return status;
}

pelmoStatus ipqHold(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return beginHeldLocked(ipq, &ipq->holds);
}

pelmoStatus ipqFlush(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return endLocked(ipq, &ipq->holds);
}

pelmoStatus ipqBeginBatch(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return beginHeldLocked(ipq, &ipq->batches);
}

pelmoStatus ipqEndBatch(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return endLocked(ipq, &ipq->batches);
}
