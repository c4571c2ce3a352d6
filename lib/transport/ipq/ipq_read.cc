// Reading: from a readable socket to batches of messages.

#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/log.h"
#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "lib/transport/socket/socket.h"

namespace {

// One event reads on while its reads fill their buffers, but not for so long that other connections
// of the thread starve.
constexpr uint32_t kMostReadsOfEvent = 8;

constexpr uint32_t kDrainBytes = 4096;

void printFault(Ipq* ipq, const char* words) {
    const uint32_t address = socketPeerAddress(ipq->socket);
    const auto* part = reinterpret_cast<const uint8_t*>(&address);
    logPrint("%s from %u.%u.%u.%u:%u\n", words, unsigned{part[0]}, unsigned{part[1]},
             unsigned{part[2]}, unsigned{part[3]},
             unsigned{hostOrder16(socketPeerPort(ipq->socket))});
}

// Tells what is wrong with the stream, and answers a close notice.
void explain(Ipq* ipq, CutVerdict verdict) {
    switch (verdict) {
        case CutVerdict::kGoOn:
            break;
        case CutVerdict::kCloseNotice: {
            const LockGuard guard(ipq->lock);
            if (ipq->open) ipqSendCloseNoticeLocked(ipq);
            break;
        }
        case CutVerdict::kBadMagic:
            printFault(ipq, "bad magic");
            break;
        case CutVerdict::kBadSize:
            printFault(ipq, "message with invalid size");
            break;
        case CutVerdict::kNoMemory:
            logPrint("DrainQueue: out of memory.\n");
            break;
    }
}

// Notes a read and what was cut from it. False when the queue was closed meanwhile.
bool noteRead(Ipq* ipq, uint32_t asked, SocketCode code, uint32_t got) {
    const LockGuard guard(ipq->lock);
    ++ipq->reads.attempts;
    if (code == kSocketWouldBlock || code == kSocketNoBuffers) ++ipq->reads.failures;
    if (code == kSocketDone) ipq->activity = true;
    accountSize(ipq->accounting.reads, asked, got);
    return ipq->open;
}

void noteCut(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    ipq->reads.messages = ipq->cutter.messages;
    ipq->reads.bytes = ipq->cutter.bytes;
    ipq->reads.partials = ipq->cutter.partials;
}

// Hands the batch to the owner, who takes over the messages, or drops them if there is none.
void handOn(Ipq* ipq) {
    if (ipq->batch->count == 0) return;
    IpqReadCallback callback = nullptr;
    void* closure = nullptr;
    {
        const LockGuard guard(ipq->lock);
        if (ipq->open) callback = ipq->readCallback;
        closure = ipq->readClosure;
    }
    const std::span messages(reinterpret_cast<pelmoMsg**>(ipq->batch->items), ipq->batch->count);
    ipq->batch->count = 0;
    if (callback != nullptr) {
        callback(ipq, messages, closure);
    } else {
        for (pelmoMsg* message : messages)
            msgRelease(message);
    }
}

enum class ReadStep {
    kFilled,  // all that was asked for: there may be more
    kShort,
    kNothing,
    kNoBuffers,
    kFailed,
};

// One read to the room, and what comes of it.
ReadStep readOnce(Ipq* ipq, std::span<uint8_t> room) {
    if (room.empty()) {
        explain(ipq, CutVerdict::kNoMemory);
        return ReadStep::kFailed;
    }
    const auto asked = static_cast<uint32_t>(room.size());
    uint32_t got = 0;
    const SocketCode code = socketRead(ipq->socket, room.data(), asked, &got);
    const bool open = noteRead(ipq, asked, code, got);
    if (code != kSocketDone) (void)cutterTake(&ipq->cutter, 0, ipq->batch);
    if (!open || code == kSocketWouldBlock) return ReadStep::kNothing;
    if (code == kSocketNoBuffers) return ReadStep::kNoBuffers;
    if (code != kSocketDone) return ReadStep::kFailed;
    const CutVerdict verdict = cutterTake(&ipq->cutter, got, ipq->batch);
    noteCut(ipq);
    if (verdict == CutVerdict::kGoOn) return got == asked ? ReadStep::kFilled : ReadStep::kShort;
    explain(ipq, verdict);
    return ReadStep::kFailed;
}

void onReadable(Socket*, void* closure) {
    const IpqWorkerScope worker;
    auto* const ipq = static_cast<Ipq*>(closure);
    ReadStep step = ReadStep::kFilled;
    for (uint32_t i = 0; i < kMostReadsOfEvent && step == ReadStep::kFilled; ++i) {
        step = readOnce(ipq, cutterRoom(&ipq->cutter));
        handOn(ipq);
    }
    if (step == ReadStep::kFailed) ipqFail(ipq);
}

}  // namespace

pelmoStatus ipqStartReadingLocked(Ipq* ipq) {
    if (ipq->reading || ipq->failed) return kStatusSuccess;
    ipqRetain(ipq);
    const pelmoStatus status = socketOnReadable(ipq->socket, onReadable, ipq);
    if (status != kStatusSuccess) {
        ipqRelease(ipq);
        return status;
    }
    ipq->reading = true;
    return kStatusSuccess;
}

void ipqStopReadingLocked(Ipq* ipq) {
    if (!std::exchange(ipq->reading, false)) return;
    if (socketCancelReadable(ipq->socket, ipqReleaseClosure) != kStatusSuccess) ipqRelease(ipq);
}

pelmoStatus ipqReadOne(Ipq* ipq, pelmoMsg** out) {
    bool blocking = false;
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->open) return kStatusDaemonNotConnected;
        blocking = ipq->blocking;
    }
    *out = nullptr;
    // One unit at a time, so that the next one's bytes stay in the socket and fire its event.
    do {
        const ReadStep step = readOnce(ipq, cutterRoomForOne(&ipq->cutter));
        if (step == ReadStep::kFailed) return kStatusInvalidIoSource;
        if (step == ReadStep::kNoBuffers && blocking) return kStatusNoMemory;
        if (step != ReadStep::kFilled && step != ReadStep::kShort) {
            return blocking ? kStatusTimeout : kStatusSuccess;
        }
        if (ipq->batch->count != 0) {
            *out = static_cast<pelmoMsg*>(ipq->batch->items[0]);
            ipq->batch->count = 0;
        }
    } while (*out == nullptr && ipq->cutter.count != 0);
    return kStatusSuccess;
}

void ipqDrain(Ipq* ipq) {
    uint8_t rest[kDrainBytes];
    uint32_t got = 0;
    while (socketRead(ipq->socket, rest, sizeof rest, &got) == kSocketDone) {
    }
}
