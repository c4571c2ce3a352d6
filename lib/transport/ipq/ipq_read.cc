// Reading: chunks from the socket through the cutter to the owner, on the socket's events or by
// calls for one message.

#include <algorithm>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/log.h"
#include "lib/base/log_pace.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/no_wait.h"
#include "lib/transport/ipq/ipq_internal.h"

namespace {

// One event reads on while its reads fill their room, but not for so long that other connections of
// its thread starve.
constexpr uint32_t kMostReadsOfEvent = 8;

constexpr uint32_t kBatchItems = 32;
constexpr uint32_t kKeptBatchItems = 64;  // a longer array doesn't stay for good

// What a read came to.
enum class ReadEnd {
    kNothing,
    kScarce,  // the system is short of buffers: nothing, for now
    kSome,
    kAll,  // of the room: there may be more
    kNoMemory,
    kLost,
};

struct ReadOutcome {
    ReadEnd end;
    bool isNotice = false;  // the peer's close notice ended it

    [[nodiscard]] bool isLoss() const { return end == ReadEnd::kNoMemory || end == ReadEnd::kLost; }
    [[nodiscard]] bool hasBytes() const { return end == ReadEnd::kSome || end == ReadEnd::kAll; }
};

// The cutter and the batch belong to the thread that made the claim, until it ends.
bool claimReadingLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->isOpen || ipq->isReading) return false;
    ipq->isReading = true;
    return true;
}

void endClaim(Ipq* ipq) {
    if (ipq->batch != nullptr && ipq->batch->capacity > kKeptBatchItems) {
        ipq->batch = dpaDestroy(ipq->batch);
    }
    const LockGuard guard(ipq->lock);
    ipq->isReading = false;
}

bool hasBatch(Ipq* ipq) {
    if (ipq->batch == nullptr) ipq->batch = dpaCreate(kBatchItems);
    return ipq->batch != nullptr;
}

void releaseBatch(Ipq* ipq) {
    for (uint32_t i = 0; i < ipq->batch->count; ++i)
        msgRelease(static_cast<pelmoMsg*>(ipq->batch->items[i]));
    ipq->batch->count = 0;
}

void tellBadStream(Ipq* ipq, const char* fault) {
    const uint32_t address = hostOrder32(socketPeerAddress(ipq->socket));
    logPacedAs(fault, "%s from %u.%u.%u.%u:%u\n", fault, address >> 24, address >> 16 & 0xff,
               address >> 8 & 0xff, address & 0xff,
               unsigned{hostOrder16(socketPeerPort(ipq->socket))});
}

ReadOutcome endOf(Ipq* ipq, CutVerdict verdict, bool isAll) {
    switch (verdict) {
        case CutVerdict::kGoOn:
            return {isAll ? ReadEnd::kAll : ReadEnd::kSome};
        case CutVerdict::kCloseNotice:
            return {ReadEnd::kLost, true};
        case CutVerdict::kBadMagic:
            tellBadStream(ipq, "bad magic");
            return {ReadEnd::kLost};
        case CutVerdict::kBadSize:
            tellBadStream(ipq, "message with invalid size");
            return {ReadEnd::kLost};
        default:
            return {ReadEnd::kNoMemory};
    }
}

// Called by the thread that has claimed the cutter.
uint64_t unfinishedBytes(const Ipq* ipq) {
    return ipq->cutter.buffer != nullptr ? ipq->cutter.buffer->size : 0;
}

// A queue that is closed belongs to the thread that closes it.
void noteReadLocked(Ipq* ipq, SocketCode code, uint32_t asked, uint32_t got)
    PELMO_REQUIRES(ipq->lock) {
    if (!ipq->isOpen) return;
    IpqStatistics& read = ipq->read;
    ++read.attempts;
    if (code != kSocketDone) ++read.failures;
    // What comes may be the answer that the next send has waited for: no streak goes on after it.
    if (read.messages != ipq->cutter.messages) ipq->closeSends = 0;
    read.messages = ipq->cutter.messages;
    read.bytes = ipq->cutter.bytes;
    read.partials = ipq->cutter.partials;
    ipq->unfinishedBytes = unfinishedBytes(ipq);
    ipq->hadActivity = true;
    accountSize(ipq->accounting.reads, asked, got);
}

// One read, and what comes of it in the batch.
ReadOutcome readSome(Ipq* ipq, bool oneUnit) {
    if (!hasBatch(ipq)) return {ReadEnd::kNoMemory};
    const std::span<uint8_t> room =
        oneUnit ? cutterRoomForOne(&ipq->cutter) : cutterRoom(&ipq->cutter);
    if (room.empty()) return {ReadEnd::kNoMemory};
    uint32_t got = 0;
    const auto asked = static_cast<uint32_t>(room.size());
    const SocketCode code = socketRead(ipq->socket, room.data(), asked, &got);
    const CutVerdict verdict = cutterTake(&ipq->cutter, got, ipq->batch);
    {
        const LockGuard guard(ipq->lock);
        noteReadLocked(ipq, code, asked, got);
    }
    if (code == kSocketDone) return endOf(ipq, verdict, got == asked);
    if (code == kSocketNoBuffers) return {ReadEnd::kScarce};
    return {code == kSocketWouldBlock ? ReadEnd::kNothing : ReadEnd::kLost};
}

// The peer throws away what is sent to it from here on, so the notice goes only where nothing is
// partly written.
void answerNoticeLocked(Ipq* ipq) PELMO_REQUIRES(ipq->lock) {
    if (!ipq->isLost && writeQueueIsEmpty(&ipq->queue)) (void)ipqSendNotice(ipq);
}

void loseReading(Ipq* ipq, const ReadOutcome& outcome) {
    if (outcome.end == ReadEnd::kNoMemory) logPrint("DrainQueue: out of memory.\n");
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return;
    ipq->hasNotice = outcome.isNotice;
    if (outcome.isNotice) answerNoticeLocked(ipq);
    ipq->isReadLost = true;
    ipqDisarmReadLocked(ipq);
    ipqLoseLocked(ipq);
}

// The owner gets what was read, unless the queue has closed meanwhile.
void deliver(Ipq* ipq) {
    if (ipq->batch == nullptr || ipq->batch->count == 0) return;
    IpqReadCallback callback;
    void* closure;
    {
        const LockGuard guard(ipq->lock);
        callback = ipq->isOpen ? ipq->readCallback : nullptr;
        closure = ipq->readClosure;
    }
    if (callback == nullptr) return releaseBatch(ipq);
    auto** const messages = reinterpret_cast<pelmoMsg**>(ipq->batch->items);
    callback(ipq, {messages, std::exchange(ipq->batch->count, 0u)}, closure);
}

// The owner learns of a message that takes much before it is whole.
void tellGrowth(Ipq* ipq) {
    const uint64_t steps = unfinishedBytes(ipq) / kGrowthStepBytes;
    const bool grew = steps > std::exchange(ipq->growthSteps, steps);
    if (!grew) return;
    IpqGrowthCallback callback;
    void* closure;
    {
        const LockGuard guard(ipq->lock);
        callback = ipq->isOpen ? ipq->growthCallback : nullptr;
        closure = ipq->readClosure;
    }
    if (callback != nullptr) callback(ipq, closure);
}

bool beginReadable(Ipq* ipq, bool* isBlocking) {
    const LockGuard guard(ipq->lock);
    *isBlocking = ipq->isBlocking;
    return ipq->readIsArmed && claimReadingLocked(ipq);
}

// Has the callback neither closed the queue nor paused it?
bool goesOn(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return ipq->readIsArmed && !ipq->isBlocking;
}

// In blocking mode nothing is read after a message, since the next one may be for ipqReadOne.
void onReadable(Socket*, void* closure) {
    auto* const ipq = static_cast<Ipq*>(closure);
    const NoWait mark;
    bool isBlocking;
    if (!beginReadable(ipq, &isBlocking)) return;
    ReadOutcome outcome;
    uint32_t reads = 0;
    do {
        outcome = readSome(ipq, isBlocking);
        deliver(ipq);
        tellGrowth(ipq);
    } while (outcome.end == ReadEnd::kAll && ++reads < kMostReadsOfEvent && goesOn(ipq));
    const bool isLost = outcome.isLoss();
    if (isLost) loseReading(ipq, outcome);
    endClaim(ipq);
    if (isLost) ipqTellLoss(ipq);
}

// Reads on until there is a message, or a whole unit that is none.
ReadOutcome readOne(Ipq* ipq) {
    ReadOutcome outcome;
    do {
        outcome = readSome(ipq, true);
    } while (outcome.hasBytes() && ipq->cutter.buffer != nullptr);
    return outcome;
}

pelmoStatus beginReadOne(Ipq* ipq, bool* isBlocking) {
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    if (ipq->isReadLost) return kStatusInvalidIoSource;
    *isBlocking = ipq->isBlocking;
    return claimReadingLocked(ipq) ? kStatusSuccess : kStatusNotPermitted;
}

pelmoStatus statusOf(const ReadOutcome& outcome, bool isBlocking) {
    switch (outcome.end) {
        case ReadEnd::kNothing:
            return isBlocking ? kStatusTimeout : kStatusSuccess;
        case ReadEnd::kScarce:
            return isBlocking ? kStatusNoMemory : kStatusSuccess;
        case ReadEnd::kNoMemory:
            return kStatusNoMemory;
        case ReadEnd::kLost:
            return kStatusInvalidIoSource;
        default:
            return kStatusSuccess;
    }
}

}  // namespace

pelmoStatus ipqArmReadLocked(Ipq* ipq) {
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    if (ipq->isReadLost) return kStatusInvalidIoSource;
    if (ipq->readIsArmed) return kStatusSuccess;
    ipqRetain(ipq);
    const pelmoStatus status = socketOnReadable(ipq->socket, onReadable, ipq);
    if (status == kStatusSuccess) {
        ipq->readIsArmed = true;
    } else {
        ipqRelease(ipq);
    }
    return status;
}

void ipqDisarmReadLocked(Ipq* ipq) {
    if (!ipq->readIsArmed) return;
    ipq->readIsArmed = false;
    if (socketCancelReadable(ipq->socket, ipqHandlerGone) != kStatusSuccess) ipqRelease(ipq);
}

pelmoStatus ipqSetReadCallback(Ipq* ipq, IpqReadCallback callback, void* closure) {
    if (callback == nullptr) return kStatusInvalidCallback;
    const LockGuard guard(ipq->lock);
    ipq->readCallback = callback;
    ipq->readClosure = closure;
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    const SocketCode code = socketSetQueue(ipq->socket, ipq->queueId);
    return code == kSocketDone ? ipqArmReadLocked(ipq) : socketStatus(code);
}

void ipqSetMostFirstBytes(Ipq* ipq, uint32_t bytes) {
    ipq->cutter.mostFirstBytes = std::min(bytes, ipq->mostMessageBytes);
}

void ipqSetGrowthCallback(Ipq* ipq, IpqGrowthCallback callback) {
    const LockGuard guard(ipq->lock);
    ipq->growthCallback = callback;
}

bool ipqHasNotice(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    return ipq->hasNotice;
}

pelmoStatus ipqPauseReading(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (!ipq->isOpen) return kStatusDaemonNotConnected;
    ipqDisarmReadLocked(ipq);
    return kStatusSuccess;
}

pelmoStatus ipqReadOne(Ipq* ipq, pelmoMsg** out) {
    bool isBlocking;
    const pelmoStatus status = beginReadOne(ipq, &isBlocking);
    if (status != kStatusSuccess) return status;
    const ReadOutcome outcome = readOne(ipq);
    *out = nullptr;
    if (ipq->batch != nullptr && ipq->batch->count != 0) {
        *out = static_cast<pelmoMsg*>(ipq->batch->items[0]);
        ipq->batch->count = 0;
    }
    if (outcome.isLoss()) loseReading(ipq, outcome);
    endClaim(ipq);
    return statusOf(outcome, isBlocking);
}
