// Bytes: reading, peeking and writing, and the waits of the blocking modes.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/clock.h"
#include "lib/transport/socket/socket_internal.h"

namespace {

constexpr double kLongestPollSeconds = 86'400;

// Negative for no limit. Rounded up, so that a poll never ends too early.
int pollMilliseconds(double deadline) {
    if (deadline == 0) return -1;
    const double left = deadline - clockSteadySeconds();
    return static_cast<int>(std::ceil(std::clamp(left, 0.0, kLongestPollSeconds) * 1000));
}

void countLocked(Socket* socket, SocketDirection direction, uint32_t bytes)
    PELMO_REQUIRES(socket->lock) {
    socket->rates[static_cast<uint32_t>(direction)].total += bytes;
}

SocketCode logErrorLocked(Socket* socket, const char* call, SocketCode code)
    PELMO_REQUIRES(socket->lock) {
    if (code == kSocketDone || code == kSocketWouldBlock) return code;
    socketLine("_pelmoTcpSocket_%s: socket %p:%d error %d (Os error %d)\n", call,
               static_cast<void*>(socket), socket->handle, static_cast<int>(code),
               socket->lastError);
    return code;
}

// Runs a system call until it isn't interrupted.
template <typename Call>
SocketCode systemCallLocked(Socket* socket, uint32_t* out, Call call) PELMO_REQUIRES(socket->lock) {
    ssize_t moved;
    do {
        moved = call();
    } while (moved < 0 && errno == EINTR);
    if (moved < 0) return socketFailLocked(socket, errno);
    *out = static_cast<uint32_t>(moved);
    return kSocketDone;
}

SocketCode receiveLocked(Socket* socket,
                         const char* call,
                         void* bytes,
                         uint32_t size,
                         uint32_t* out) PELMO_REQUIRES(socket->lock) {
    const int handle = socket->handle;
    const SocketCode code =
        socket->functions.receive != nullptr
            ? socket->functions.receive(socket, bytes, size, out)
            : systemCallLocked(socket, out, [=] { return recv(handle, bytes, size, 0); });
    if (code != kSocketDone || *out != 0) return logErrorLocked(socket, call, code);
    socketLine("_pelmoTcpSocket_%s: socket %p:%d disconnect due to 0 read.\n", call,
               static_cast<void*>(socket), handle);
    return kSocketDisconnected;
}

SocketCode sendLocked(Socket* socket, const void* bytes, uint32_t size, uint32_t* out)
    PELMO_REQUIRES(socket->lock) {
    size = std::min(size, kMostSendBytes);
    const int handle = socket->handle;
    const SocketCode code = socket->functions.send != nullptr
                                ? socket->functions.send(socket, bytes, size, out)
                                : systemCallLocked(socket, out, [=] {
                                      return send(handle, bytes, size, MSG_NOSIGNAL);
                                  });
    if (code == kSocketDone) countLocked(socket, SocketDirection::kWrite, *out);
    return logErrorLocked(socket, "Send", code);
}

// The entry at the limit is cut for the call alone.
SocketCode sendVectorLocked(Socket* socket, const GatherList* list, uint32_t* out)
    PELMO_REQUIRES(socket->lock) {
    GatherList part = {
        .capacity = list->capacity, .count = 0, .total = 0, .entries = list->entries};
    iovec* cut = nullptr;
    size_t cutLength = 0;
    const uint32_t most = std::min(list->count, kMostSendEntries);
    while (part.count < most && part.total < kMostSendBytes) {
        iovec& entry = part.entries[part.count++];
        const uint32_t room = kMostSendBytes - part.total;
        if (entry.iov_len > room) {
            cut = &entry;
            cutLength = std::exchange(entry.iov_len, room);
        }
        part.total += static_cast<uint32_t>(entry.iov_len);
    }

    msghdr message = {};
    message.msg_iov = part.entries;
    message.msg_iovlen = part.count;
    const int handle = socket->handle;
    const SocketCode code = socket->functions.sendVector != nullptr
                                ? socket->functions.sendVector(socket, &part, out)
                                : systemCallLocked(socket, out, [&] {
                                      return sendmsg(handle, &message, MSG_NOSIGNAL);
                                  });
    if (cut != nullptr) cut->iov_len = cutLength;
    if (code == kSocketDone) countLocked(socket, SocketDirection::kWrite, *out);
    return logErrorLocked(socket, "Sendv", code);
}

// Bytes of the peek buffer come first. They stay in it where the rest can't be read now, so that
// the answer of that loses none.
SocketCode readLocked(Socket* socket, char* bytes, uint32_t size, uint32_t* out)
    PELMO_REQUIRES(socket->lock) {
    const uint32_t peeked = std::min(socket->peekCount, size);
    uint32_t received = 0;
    if (peeked < size) {
        const SocketCode code =
            receiveLocked(socket, "Recv", bytes + peeked, size - peeked, &received);
        if (code != kSocketDone) return code;
    }
    if (peeked != 0) {
        std::memcpy(bytes, socket->peekBuffer, peeked);
        socket->peekCount -= peeked;
        std::memmove(socket->peekBuffer, socket->peekBuffer + peeked, socket->peekCount);
    }
    *out = peeked + received;
    countLocked(socket, SocketDirection::kRead, *out);
    return kSocketDone;
}

// Is there a connection? Blocking modes wait for one that is under way.
SocketCode readyLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (socket->state == SocketState::kConnecting && socket->mode != SocketMode::kNonBlocking) {
        const pelmoStatus status = socketAwaitConnectLocked(socket, socket->deadline);
        if (status == kStatusTimeout) return kSocketWouldBlock;
    }
    if (socket->interrupted) return kSocketDisconnected;
    if (socket->state == SocketState::kConnecting) return kSocketWouldBlock;
    return socket->state == SocketState::kConnected ? kSocketDone : kSocketDisconnected;
}

short pollEventsLocked(const Socket* socket, SocketDirection direction)
    PELMO_REQUIRES(socket->lock) {
    if (direction == SocketDirection::kRead) {
        return socket->crossMode == SocketCrossMode::kReadNeedsWritable ? POLLOUT : POLLIN;
    }
    return socket->crossMode == SocketCrossMode::kWriteNeedsReadable ? POLLIN : POLLOUT;
}

// What a call moves: `move` takes it on from `moved` bytes, without waiting.
struct Transfer {
    SocketCode (*move)(Socket* socket, const Transfer& transfer, uint32_t moved, uint32_t* got);
    SocketDirection direction;
    uint32_t size;
    char* to = nullptr;
    const char* from = nullptr;
    const GatherList* list = nullptr;
};

SocketCode moveRead(Socket* socket, const Transfer& transfer, uint32_t moved, uint32_t* got)
    PELMO_REQUIRES(socket->lock) {
    return readLocked(socket, transfer.to + moved, transfer.size - moved, got);
}

SocketCode movePeek(Socket* socket, const Transfer& transfer, uint32_t moved, uint32_t* got)
    PELMO_REQUIRES(socket->lock) {
    const SocketCode code = socketFillPeekLocked(socket, transfer.size);
    if (code != kSocketDone || transfer.size == 0) return code;
    const uint32_t peeked = std::min(socket->peekCount, transfer.size);
    std::memcpy(transfer.to, socket->peekBuffer, peeked);
    *got = peeked - std::min(moved, peeked);
    return code;
}

SocketCode moveWrite(Socket* socket, const Transfer& transfer, uint32_t moved, uint32_t* got)
    PELMO_REQUIRES(socket->lock) {
    return sendLocked(socket, transfer.from + moved, transfer.size - moved, got);
}

SocketCode moveList(Socket* socket, const Transfer& transfer, uint32_t, uint32_t* got)
    PELMO_REQUIRES(socket->lock) {
    return sendVectorLocked(socket, transfer.list, got);
}

// Moves until the mode is content.
SocketCode transferLocked(Socket* socket, const Transfer& transfer, uint32_t* out)
    PELMO_REQUIRES(socket->lock) {
    uint32_t moved = 0;
    for (;;) {
        uint32_t got = 0;
        SocketCode code = readyLocked(socket);
        if (code == kSocketDone) code = transfer.move(socket, transfer, moved, &got);
        moved += got;
        const bool rests = moved < transfer.size;
        if (code == kSocketDone && got == 0 && rests) code = kSocketWouldBlock;
        const bool whole = socket->mode == SocketMode::kFullyBlocking;
        if (code == kSocketDone && whole && rests) continue;
        if (code == kSocketWouldBlock && socket->mode != SocketMode::kNonBlocking &&
            socketPollLocked(socket, pollEventsLocked(socket, transfer.direction),
                             socket->deadline)) {
            continue;
        }
        if (code == kSocketDone || whole) *out = moved;
        return code;
    }
}

}  // namespace

bool socketPollLocked(Socket* socket, short events, double deadline) {
    if (socket->state == SocketState::kClosed) return true;
    const int milliseconds = pollMilliseconds(deadline);
    if (milliseconds == 0) return false;
    pollfd entry{.fd = socket->handle, .events = events, .revents = 0};
    ++socket->polls;
    Lock_Leave(&socket->lock);
    (void)poll(&entry, 1, milliseconds);
    Lock_Enter(&socket->lock);
    // The close has left the handle to the last poll.
    if (--socket->polls == 0 && socket->state == SocketState::kClosed) {
        close(std::exchange(socket->handle, -1));
    }
    return true;
}

bool socketGrowPeekLocked(Socket* socket, uint32_t size) {
    if (size <= socket->peekCapacity) return true;
    void* const block = std::realloc(socket->peekBuffer, size);
    if (block == nullptr) return false;
    socket->peekBuffer = static_cast<char*>(block);
    socket->peekCapacity = size;
    return true;
}

SocketCode socketFillPeekLocked(Socket* socket, uint32_t size) {
    if (socket->peekCount >= size) return kSocketDone;
    if (!socketGrowPeekLocked(socket, size)) return kSocketNoBuffers;
    uint32_t received = 0;
    const SocketCode code = receiveLocked(socket, "Peek", socket->peekBuffer + socket->peekCount,
                                          size - socket->peekCount, &received);
    if (code == kSocketDone) socket->peekCount += received;
    return code;
}

SocketCode socketRead(Socket* socket, void* bytes, uint32_t size, uint32_t* out) {
    const Transfer transfer = {.move = moveRead,
                               .direction = SocketDirection::kRead,
                               .size = size,
                               .to = static_cast<char*>(bytes)};
    const LockGuard guard(socket->lock);
    return transferLocked(socket, transfer, out);
}

SocketCode socketPeek(Socket* socket, void* bytes, uint32_t size, uint32_t* out) {
    const Transfer transfer = {.move = movePeek,
                               .direction = SocketDirection::kRead,
                               .size = size,
                               .to = static_cast<char*>(bytes)};
    const LockGuard guard(socket->lock);
    return transferLocked(socket, transfer, out);
}

SocketCode socketWrite(Socket* socket, const void* bytes, uint32_t size, uint32_t* out) {
    const Transfer transfer = {.move = moveWrite,
                               .direction = SocketDirection::kWrite,
                               .size = size,
                               .from = static_cast<const char*>(bytes)};
    const LockGuard guard(socket->lock);
    return transferLocked(socket, transfer, out);
}

SocketCode socketWriteVector(Socket* socket, const GatherList* list, uint32_t* out) {
    const Transfer transfer = {
        .move = moveList, .direction = SocketDirection::kWrite, .size = list->total, .list = list};
    const LockGuard guard(socket->lock);
    if (socket->mode == SocketMode::kFullyBlocking) return kSocketWrongState;
    return transferLocked(socket, transfer, out);
}

pelmoStatus socketSetMinRead(Socket* socket, uint32_t bytes) {
    const LockGuard guard(socket->lock);
    if (!socketGrowPeekLocked(socket, bytes)) return kStatusNoMemory;
    socket->minRead = bytes;
    return kStatusSuccess;
}
