#include "lib/transport/socket/socket.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/runtime/socket_error.h"
#include "lib/transport/socket/socket_internal.h"

namespace {

bool setOption(int handle, int level, int option, int value) {
    return setsockopt(handle, level, option, &value, sizeof(value)) == 0;
}

bool configure(int handle, SocketRole role) {
    if (!socketSetNoDelay(handle)) return false;
    return role != SocketRole::kServer || socketSetReuse(handle, true);
}

SocketCode openLocked(Socket* created) PELMO_REQUIRES(created->lock) {
    if (created->state != SocketState::kClosed) return kSocketWrongState;
    created->handle = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (created->handle < 0) return socketFailLocked(created, errno);
    if (!configure(created->handle, created->role)) {
        const SocketCode code = socketFailLocked(created, errno);
        close(std::exchange(created->handle, -1));
        return code;
    }
    created->state = SocketState::kOpen;
    socketLine("Created %s socket %p:%d.", socketKind(created), static_cast<void*>(created),
               created->handle);
    return kSocketDone;
}

SocketCode open(Socket* created) {
    const LockGuard guard(created->lock);
    const SocketCode code = openLocked(created);
    if (code != kSocketDone) {
        socketLine("failed to open %s socket %" PRIxPTR ": %d.", socketKind(created),
                   reinterpret_cast<uintptr_t>(created), created->lastError);
    }
    return code;
}

SocketCode create(
    Socket** out, SocketRole role, uint32_t classIndex, uint32_t queueId, bool isLocal) {
    const SocketClass* const functions = socketClassFind(classIndex);
    if (functions == nullptr) return kSocketWrongState;
    Socket* const created = socketNew(role, *functions, queueId, isLocal);
    if (created == nullptr) return kSocketNoBuffers;
    const SocketCode code = open(created);
    if (code != kSocketDone) {
        socketRelease(created);
        return code;
    }
    *out = created;
    return kSocketDone;
}

// A poll that is under way ends, and the last one closes the handle.
void closeHandleLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (socket->polls != 0) {
        shutdown(socket->handle, SHUT_RDWR);
    } else {
        // close isn't repeated on EINTR: the descriptor is closed in any case.
        close(std::exchange(socket->handle, -1));
    }
}

void closeLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    if (socket->state == SocketState::kClosed) return;
    if (socket->functions.closing != nullptr) socket->functions.closing(socket);
    socketLine("closing %s socket %p:%d.", socketKind(socket), static_cast<void*>(socket),
               socket->handle);
    socket->state = SocketState::kClosed;
    (void)socketCancelLocked(socket, &socket->reader, nullptr);
    (void)socketCancelLocked(socket, &socket->writer, nullptr);
    socketDropEventsLocked(socket);
    socketEndRateTimerLocked(socket);
    closeHandleLocked(socket);
    socket->bound = false;
    std::free(std::exchange(socket->peekBuffer, nullptr));
    socket->peekCapacity = socket->peekCount = 0;
    Cond_Broadcast(&socket->connectCond);
}

// No other thread can reach a socket whose last reference is gone.
void destruct(Socket* socket) PELMO_UNCHECKED_LOCKING {
    Cond_Destroy(&socket->connectCond);
    Lock_Destroy(&socket->lock);
    std::free(socket->peekBuffer);
    std::free(socket);
}

}  // namespace

Socket* socketNew(SocketRole role,
                  const SocketClass& functions,
                  uint32_t queueId,
                  bool isLocal) PELMO_UNCHECKED_LOCKING {  // no other thread knows it yet
    void* const block = std::calloc(1, sizeof(Socket));
    if (block == nullptr) return nullptr;
    auto* const made = new (block) Socket{};
    if (Lock_Init(&made->lock, LockRank::kSocket) != kStatusSuccess) {
        std::free(block);
        return nullptr;
    }
    if (Cond_Init(&made->connectCond) != kStatusSuccess) {
        Lock_Destroy(&made->lock);
        std::free(block);
        return nullptr;
    }
    made->role = role;
    made->isLocal = isLocal;
    made->functions = functions;
    made->queueId = queueId;
    made->handle = -1;
    made->references.store(1, std::memory_order_relaxed);
    return made;
}

SocketCode socketFailLocked(Socket* socket, int error) {
    socket->lastError = socketErrorFromErrno(error);
    return socketCodeFromErrno(error);
}

SocketCode socketCodeFromStatus(pelmoStatus status) {
    if (status == kStatusSuccess) return kSocketDone;
    if (status == kStatusNoMemory) return kSocketNoBuffers;
    return status == kStatusSocketLimit ? kSocketTooMany : kSocketOtherError;
}

bool socketSetReuse(int handle, bool on) {
    return setOption(handle, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}

bool socketSetNoDelay(int handle) {
    return setOption(handle, IPPROTO_TCP, TCP_NODELAY, 1);
}

SocketCode socketCreateClient(Socket** out, uint32_t classIndex, uint32_t queueId, bool isLocal) {
    return create(out, SocketRole::kClient, classIndex, queueId, isLocal);
}

SocketCode socketCreateServer(Socket** out, uint32_t classIndex, uint32_t queueId, bool isLocal) {
    return create(out, SocketRole::kServer, classIndex, queueId, isLocal);
}

void socketRetain(Socket* socket) {
    socket->references.fetch_add(1, std::memory_order_relaxed);
}

void socketRelease(Socket* socket) {
    if (socket->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    socketClose(socket);
    destruct(socket);
}

void socketClose(Socket* socket) {
    const LockGuard guard(socket->lock);
    closeLocked(socket);
}

void socketDestroy(Socket* socket) {
    socketClose(socket);
    socketRelease(socket);
}

void socketSetMode(Socket* socket, SocketMode mode) {
    const LockGuard guard(socket->lock);
    socket->mode = mode;
}

void socketSetDeadline(Socket* socket, double steadySeconds) {
    const LockGuard guard(socket->lock);
    socket->deadline = steadySeconds;
}

void socketInterrupt(Socket* socket) {
    const LockGuard guard(socket->lock);
    socket->interrupted = true;
    if (socket->state == SocketState::kClosed) return;
    shutdown(socket->handle, SHUT_RDWR);
    if (socket->state == SocketState::kConnecting) {
        socketConnectFailLocked(socket, kSocketDisconnected);
    }
}

pelmoStatus socketSetKeepAlive(Socket* socket, bool on) {
    if (std::getenv("PELMO_DISABLE_SO_KEEPALIVE") != nullptr) return kStatusSuccess;
    const LockGuard guard(socket->lock);
    return setOption(socket->handle, SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0) ? kStatusSuccess
                                                                           : kStatusNotInitialized;
}

pelmoStatus socketSetSendBuffer(Socket* socket, uint32_t bytes) {
    const LockGuard guard(socket->lock);
    const bool isSet = setOption(socket->handle, SOL_SOCKET, SO_SNDBUF, static_cast<int>(bytes));
    return isSet ? kStatusSuccess : kStatusNotInitialized;
}

uint32_t socketPeerAddress(Socket* socket) {
    const LockGuard guard(socket->lock);
    return socket->peerAddress;
}

uint16_t socketPeerPort(Socket* socket) {
    const LockGuard guard(socket->lock);
    return socket->peerPort;
}

uint16_t socketBoundPort(Socket* socket) {
    const LockGuard guard(socket->lock);
    return socket->boundPort;
}

uint32_t socketUnconfirmedBytes(Socket* socket) {
    const LockGuard guard(socket->lock);
    int bytes = 0;
    if (ioctl(socket->handle, SIOCOUTQ, &bytes) != 0 || bytes < 0) return 0;
    return static_cast<uint32_t>(bytes);
}

bool socketPeerHasEnded(Socket* socket) {
    const LockGuard guard(socket->lock);
    tcp_info info = {};
    socklen_t size = sizeof info;
    return getsockopt(socket->handle, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_state == TCP_CLOSE_WAIT;
}

bool socketPeerIsHere(Socket* socket) {
    const LockGuard guard(socket->lock);
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    if (getsockname(socket->handle, reinterpret_cast<sockaddr*>(&own), &size) != 0) return false;
    const uint32_t peer = socket->peerAddress;
    return own.sin_addr.s_addr == peer || hostOrder32(peer) >> 24 == IN_LOOPBACKNET;
}

int socketHandle(Socket* socket) {
    const LockGuard guard(socket->lock);
    return socket->handle;
}

void* socketUserData(Socket* socket) {
    const LockGuard guard(socket->lock);
    return socket->userData;
}

void socketSetUserData(Socket* socket, void* userData) {
    const LockGuard guard(socket->lock);
    socket->userData = userData;
}
