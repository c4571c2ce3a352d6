// The end of a queue: in order, or at once, and what was sent and is lost by it.

#include <poll.h>

#include <algorithm>
#include <cmath>

#include "lib/base/clock.h"
#include "lib/transport/ipq/ipq_internal.h"

namespace {

constexpr uint32_t kThrownAwayBytes = 65536;  // at a time
constexpr uint32_t kMostReadsOfTurn = 16;    // so that a peer that never stops sending ends in time
constexpr double kLookSeconds = 0.1;         // at what the peer's system has confirmed
constexpr double kLookAgainSeconds = 0.005;  // where no event shows that it has

// What the system still holds is known in bytes alone: an average message is taken to be lost for
// so many of them.
uint64_t messagesOf(const IpqStatistics& written, uint64_t bytes) {
    if (bytes == 0 || written.bytes == 0 || written.messages == 0) return 0;
    const double size = static_cast<double>(written.bytes) / static_cast<double>(written.messages);
    const double count = std::ceil(static_cast<double>(bytes) / size);
    return std::min(static_cast<uint64_t>(count), written.messages);
}

// A close on its way. The queue has closed, and its thread is the only one that writes.
struct Closing {
    Ipq* ipq;
    double deadline;     // of all
    double patienceEnd;  // moves on while bytes leave
    uint64_t left;       // that the peer's system hasn't confirmed, or that wait
    bool noticeSent;
    bool peerEnded;  // nothing more can be read
};

// False once nothing can be written any more.
bool writeOn(Closing& closing) {
    bool isDone = false;
    const bool isFine = closing.noticeSent || ipqWriteLast(closing.ipq, &isDone);
    closing.noticeSent = closing.noticeSent || isDone;
    return isFine;
}

// A peer that has much to send takes in what comes only once that is read.
void throwAwayReads(Closing& closing) {
    uint8_t bytes[kThrownAwayBytes];
    uint32_t got;
    for (uint32_t reads = 0; reads < kMostReadsOfTurn && !closing.peerEnded; ++reads) {
        const SocketCode code = socketRead(closing.ipq->socket, bytes, sizeof(bytes), &got);
        if (code == kSocketWouldBlock || code == kSocketNoBuffers) return;
        closing.peerEnded = code != kSocketDone;
    }
}

uint64_t bytesLeft(const Closing& closing) PELMO_UNCHECKED_LOCKING {
    return writeQueueBytes(&closing.ipq->queue) + socketUnconfirmedBytes(closing.ipq->socket);
}

// Has the peer taken all, read all and ended? It ends after the notice, which is the last that it
// reads; one that goes with something unread breaks the connection off.
bool isConfirmed(const Closing& closing) {
    return closing.noticeSent && closing.peerEnded && closing.left == 0 &&
           socketPeerHasEnded(closing.ipq->socket);
}

// May the peer's end still turn out to be in order?
bool mayEndWell(const Closing& closing) {
    return !closing.peerEnded || socketPeerHasEnded(closing.ipq->socket);
}

// An ended connection is readable for ever: then only the time passes.
void awaitMore(const Closing& closing, double now) PELMO_UNCHECKED_LOCKING {
    const bool waitsToWrite = !closing.noticeSent;
    const auto events = static_cast<short>(POLLIN | (waitsToWrite ? POLLOUT : 0));
    pollfd entry = {.fd = socketHandle(closing.ipq->socket), .events = events, .revents = 0};
    const double end = std::min(closing.deadline, closing.patienceEnd);
    const double look = closing.peerEnded ? kLookAgainSeconds : kLookSeconds;
    const double seconds = std::clamp(end - now, 0.0, look);
    (void)poll(&entry, closing.peerEnded ? 0 : 1, static_cast<int>(std::ceil(seconds * 1000)));
}

// True where the peer has confirmed all.
bool closeGracefully(Ipq* ipq, double deadline) {
    Closing closing = {.ipq = ipq,
                       .deadline = deadline,
                       .patienceEnd = 0,
                       .left = UINT64_MAX,
                       .noticeSent = false,
                       .peerEnded = false};
    socketSetMode(ipq->socket, SocketMode::kNonBlocking);
    for (;;) {
        const bool isFine = writeOn(closing);
        throwAwayReads(closing);
        const double now = clockSteadySeconds();
        const uint64_t left = bytesLeft(closing);
        if (left != closing.left) closing.patienceEnd = now + kGracefulCloseSeconds;
        closing.left = left;
        if (isConfirmed(closing)) return true;
        if (!isFine || !mayEndWell(closing)) return false;
        if (now >= closing.deadline || now >= closing.patienceEnd) return false;
        awaitMore(closing, now);
    }
}

}  // namespace

void ipqNoteLossesLocked(Ipq* ipq) {
    const uint64_t all = ipq->queue.messages;
    uint64_t waiting = all;
    for (const IpqAdding* adding = ipq->adding; adding != nullptr; adding = adding->next)
        waiting -= std::min<uint64_t>(waiting, adding->count - ipqLeftOfLocked(ipq, *adding));
    uint64_t unconfirmed = socketUnconfirmedBytes(ipq->socket);
    unconfirmed -= std::min(unconfirmed, ipq->trailingBytes);
    const uint64_t bytes = all != 0 ? writeQueueBytes(&ipq->queue) * waiting / all : 0;
    ipq->losses.messages = waiting + messagesOf(ipq->written, unconfirmed);
    ipq->losses.bytes = bytes + unconfirmed;
}

uint32_t ipqLeftOfLocked(const Ipq* ipq, const IpqAdding& adding) {
    const uint64_t known = ipq->isLost ? ipq->leftAtLoss : ipq->added;
    return static_cast<uint32_t>(
        std::min<uint64_t>(known - std::min(known, adding.before), adding.count));
}

SendLosses ipqUnsent(Ipq* ipq) {
    const LockGuard guard(ipq->lock);
    if (ipq->isOpen && !ipq->isLost) ipqNoteLossesLocked(ipq);
    return ipq->losses;
}

pelmoStatus ipqClose(Ipq* ipq, bool graceful, IpqCloseCallback callback, IpqEnd* end) {
    {
        const LockGuard guard(ipq->lock);
        if (!ipq->isOpen) return kStatusInvalidArgument;
        ipq->closeCallback = callback;
        ipqEndLocked(ipq);
        graceful = graceful && !ipq->isLost;
    }
    const double deadline = end != nullptr ? end->deadline : kNoDeadline;
    const bool isConfirmed = graceful && closeGracefully(ipq, deadline);
    {
        const LockGuard guard(ipq->lock);
        if (isConfirmed) {
            ipq->losses = {};
        } else if (!ipq->isLost) {
            ipqNoteLossesLocked(ipq);
        }
        ipq->losses.unconfirmed = !isConfirmed;
        if (end != nullptr) end->losses = ipq->losses;
    }
    // Ends a read that is under way on another thread.
    socketInterrupt(ipq->socket);
    {
        const LockGuard guard(ipq->lock);
        accountClose(&ipq->accounting, ipq->written, ipq->read);
    }
    ipqRelease(ipq);
    return kStatusSuccess;
}
