// Binding, listening and accepting; connecting, and waiting for it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "lib/base/clock.h"
#include "lib/runtime/socket_error.h"
#include "lib/transport/socket/socket_internal.h"

namespace {

constexpr int kBacklog = 511;

// An address and a port in network order, as arguments for "%d.%d.%d.%d:%d".
#define ADDRESS_ARGUMENTS(address, port)                                         \
    addressByte(address, 24), addressByte(address, 16), addressByte(address, 8), \
        addressByte(address, 0), static_cast<int>(ntohs(port))

int addressByte(uint32_t address, uint32_t shift) {
    return static_cast<int>((ntohl(address) >> shift) & 0xFF);
}

sockaddr_in endpoint(uint32_t address, uint16_t port) {
    sockaddr_in made = {};
    made.sin_family = AF_INET;
    made.sin_addr.s_addr = address;
    made.sin_port = port;
    return made;
}

int bindHandle(int handle, uint32_t address, uint16_t port) {
    const sockaddr_in own = endpoint(address, port);
    return bind(handle, reinterpret_cast<const sockaddr*>(&own), sizeof(own));
}

// 0 if there is none.
uint16_t portOf(int handle) {
    sockaddr_in own = {};
    socklen_t size = sizeof(own);
    return getsockname(handle, reinterpret_cast<sockaddr*>(&own), &size) == 0 ? own.sin_port : 0;
}

// A failure only costs a line: the connect goes out from wherever the system sends it.
void bindAsAskedLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    const char* const text = std::getenv("PELMO_BINDADDR");
    in_addr address;
    if (text == nullptr || inet_pton(AF_INET, text, &address) != 1) return;
    if (bindHandle(socket->handle, address.s_addr, 0) == 0) return;
    socketLine("Failed to bind socket %p:%d - %d, PELMO_BINDADDR = %s.\n",
               static_cast<void*>(socket), socket->handle, socketErrorFromErrno(errno), text);
}

// EINPROGRESS while it is under way, 0 for a connection. The system reports an error once and then
// forgets it, and a connect that was shut down never has one: so it is connected only if it has a
// peer.
int connectError(int handle) {
    pollfd entry{.fd = handle, .events = POLLOUT, .revents = 0};
    if (poll(&entry, 1, 0) <= 0) return EINPROGRESS;
    int error = 0;
    socklen_t size = sizeof(error);
    if (getsockopt(handle, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errno;
    if (error != 0) return error;
    sockaddr_in peer;
    size = sizeof(peer);
    return getpeername(handle, reinterpret_cast<sockaddr*>(&peer), &size) == 0 ? 0 : errno;
}

// Once there is a connection: connected, or the class has to be asked again.
SocketCode beginLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    const auto function = socket->role == SocketRole::kAccepted ? socket->functions.accepted
                                                                : socket->functions.connected;
    const SocketCode code = function != nullptr ? function(socket) : kSocketDone;
    // The function may have closed it.
    if (socket->state == SocketState::kClosed) return kSocketDisconnected;
    socket->beginning = code == kSocketWouldBlock;
    if (code == kSocketDone) socket->state = SocketState::kConnected;
    if (code == kSocketWouldBlock) socket->state = SocketState::kConnecting;
    return code;
}

// Nothing happens to a socket that was closed meanwhile.
void failConnectLocked(Socket* socket, SocketCode code) PELMO_REQUIRES(socket->lock) {
    if (socket->state == SocketState::kClosed) return;
    socket->state = SocketState::kFailed;
    socket->beginning = false;
    socket->failCode = code;
    // Only one callback runs for it.
    if (socket->reader != nullptr && socket->writer != nullptr) socket->writer->knowsFailure = true;
    // On failure one event less reports the failed connect.
    (void)socketAdjustEventsLocked(socket);
}

// Makes the events for a connect or a connection; without them no callback would ever run.
SocketCode settleLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    const pelmoStatus status = socketAdjustEventsLocked(socket);
    if (status == kStatusSuccess) return kSocketDone;
    const SocketCode code = socketCodeFromStatus(status);
    failConnectLocked(socket, code);
    return code;
}

// kSocketDone for a connection, kSocketWouldBlock for one that is under way.
SocketCode startConnectLocked(Socket* socket, uint32_t address, uint16_t port)
    PELMO_REQUIRES(socket->lock) {
    const sockaddr_in peer = endpoint(address, port);
    const int result =
        connect(socket->handle, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer));
    const int error = result == 0 ? 0 : errno;
    socketLine("invoked connect for tcp socket %s:%d:%d to %d.%d.%d.%d:%d.", socketKind(socket),
               socket->handle, static_cast<int>(ntohs(portOf(socket->handle))),
               ADDRESS_ARGUMENTS(address, port));
    if (error == 0) return kSocketDone;
    // An interrupted connect continues by itself. EAGAIN says that the system has no room for it.
    if (error == EINPROGRESS || error == EINTR) return kSocketWouldBlock;
    return socketFailLocked(socket, error == EAGAIN ? ENOBUFS : error);
}

SocketCode connectLocked(Socket* socket, uint32_t address, uint16_t port)
    PELMO_REQUIRES(socket->lock) {
    if (socket->role != SocketRole::kClient || socket->state != SocketState::kOpen) {
        return kSocketWrongState;
    }
    if (socket->interrupted) return kSocketDisconnected;
    bindAsAskedLocked(socket);
    SocketCode code = startConnectLocked(socket, address, port);
    if (code == kSocketDone) {
        code = beginLocked(socket);
        if (code != kSocketDone && code != kSocketWouldBlock) failConnectLocked(socket, code);
    } else if (code == kSocketWouldBlock) {
        socket->state = SocketState::kConnecting;
    }
    if (code != kSocketDone && code != kSocketWouldBlock) return code;
    socket->peerAddress = address;
    socket->peerPort = port;
    const SocketCode settled = settleLocked(socket);
    return settled == kSocketDone ? code : settled;
}

// A connection that was taken, and what its socket has from the listening one.
struct Accepted {
    int handle;
    sockaddr_in peer;
    SocketMode mode;
    int listenerHandle;
    uint32_t listenerAddress;
};

// A client that has gone before it was accepted is passed over.
SocketCode takeOneLocked(Socket* listener, Accepted* out) PELMO_REQUIRES(listener->lock) {
    sockaddr_in peer = {};
    int handle;
    do {
        socklen_t size = sizeof(peer);
        handle = accept4(listener->handle, reinterpret_cast<sockaddr*>(&peer), &size,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
    } while (handle < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (handle < 0) return socketFailLocked(listener, errno);
    *out = {.handle = handle,
            .peer = peer,
            .mode = listener->mode,
            .listenerHandle = listener->handle,
            .listenerAddress = listener->boundAddress};
    return kSocketDone;
}

SocketCode take(Socket* listener, Accepted* out) {
    const LockGuard guard(listener->lock);
    for (;;) {
        if (listener->state != SocketState::kListening) return kSocketWrongState;
        if (listener->interrupted) return kSocketDisconnected;
        const SocketCode code = takeOneLocked(listener, out);
        if (code != kSocketWouldBlock || listener->mode == SocketMode::kNonBlocking) return code;
        if (!socketPollLocked(listener, POLLIN, listener->deadline)) return code;
    }
}

void logAccepted(const Socket* listener, const Socket* made, const Accepted& taken) {
    if (!listener->isLocal) {
        socketLine(
            "tcp socket %p:%d accepted connection from %d.%d.%d.%d:%d and created tcp socket "
            "%p:%d.",
            static_cast<const void*>(listener), taken.listenerHandle,
            ADDRESS_ARGUMENTS(taken.peer.sin_addr.s_addr, taken.peer.sin_port),
            static_cast<const void*>(made), taken.handle);
        return;
    }
    char name[INET_ADDRSTRLEN] = "";
    const in_addr own = {taken.listenerAddress};
    (void)inet_ntop(AF_INET, &own, name, sizeof(name));
    socketLine("local socket %p:%d accepted connection on %s and created local socket %p:%d.",
               static_cast<const void*>(listener), taken.listenerHandle, name,
               static_cast<const void*>(made), taken.handle);
}

SocketCode beginAccepted(Socket* made, const Accepted& taken) {
    const LockGuard guard(made->lock);
    made->handle = taken.handle;
    made->mode = taken.mode;
    made->peerAddress = taken.peer.sin_addr.s_addr;
    made->peerPort = taken.peer.sin_port;
    made->state = SocketState::kConnecting;
    if (!socketSetNoDelay(made->handle)) return socketFailLocked(made, errno);
    const SocketCode code = beginLocked(made);
    if (code != kSocketDone && code != kSocketWouldBlock) return code;
    return settleLocked(made);
}

// Those who wait for it look at the state again.
bool connectEndsLocked(Socket* socket) PELMO_REQUIRES(socket->lock) {
    Cond_Broadcast(&socket->connectCond);
    return true;
}

}  // namespace

SocketCode socketBind(Socket* socket, uint32_t address, uint16_t port, bool anyPort) {
    const LockGuard guard(socket->lock);
    if (socket->state != SocketState::kOpen) return kSocketWrongState;
    // With the option a port counts as free that another socket has and doesn't listen on yet.
    if (anyPort && !socketSetReuse(socket->handle, false)) return socketFailLocked(socket, errno);
    if (bindHandle(socket->handle, address, port) != 0) {
        if (!anyPort || bindHandle(socket->handle, address, 0) != 0) {
            return socketFailLocked(socket, errno);
        }
    }
    socket->bound = true;
    socket->boundAddress = address;
    socket->boundPort = portOf(socket->handle);
    socketLine("invoked bind for tcp socket %s:%d:%d to %d.%d.%d.%d:%d.", socketKind(socket),
               socket->handle, static_cast<int>(ntohs(socket->boundPort)),
               ADDRESS_ARGUMENTS(address, port));
    return kSocketDone;
}

SocketCode socketListen(Socket* socket) {
    const LockGuard guard(socket->lock);
    if (socket->role != SocketRole::kServer || socket->state != SocketState::kOpen ||
        !socket->bound) {
        return kSocketWrongState;
    }
    if (listen(socket->handle, kBacklog) != 0) return socketFailLocked(socket, errno);
    socket->state = SocketState::kListening;
    return kSocketDone;
}

// The new socket's lock is never taken with the listening one's held.
SocketCode socketAccept(Socket* socket, Socket** out, uint32_t queueId) {
    Accepted taken = {};
    SocketCode code = take(socket, &taken);
    if (code != kSocketDone) return code;
    Socket* const made =
        socketNew(SocketRole::kAccepted, socket->functions, queueId, socket->isLocal);
    if (made == nullptr) {
        close(taken.handle);
        return kSocketNoBuffers;
    }
    code = beginAccepted(made, taken);
    if (code != kSocketDone) {
        socketDestroy(made);
        return code;
    }
    logAccepted(socket, made, taken);
    *out = made;
    return kSocketDone;
}

SocketCode socketConnect(Socket* socket, uint32_t address, uint16_t port) {
    const LockGuard guard(socket->lock);
    const SocketCode code = connectLocked(socket, address, port);
    if (code != kSocketWouldBlock || socket->mode == SocketMode::kNonBlocking) return code;
    const pelmoStatus status = socketAwaitConnectLocked(socket, socket->deadline);
    if (status == kStatusSuccess) return kSocketDone;
    if (status == kStatusTimeout) return kSocketWouldBlock;
    return socket->state == SocketState::kFailed ? socket->failCode : kSocketDisconnected;
}

pelmoStatus socketWaitConnected(Socket* socket, double seconds) {
    const double deadline = seconds >= 0 ? clockSteadySeconds() + seconds : 0;
    const LockGuard guard(socket->lock);
    return socketAwaitConnectLocked(socket, deadline);
}

bool socketConnectAdvanceLocked(Socket* socket) {
    SocketCode code = kSocketDone;
    if (!socket->beginning) {
        const int error = connectError(socket->handle);
        if (error == EINPROGRESS) return false;
        if (error != 0) code = socketFailLocked(socket, error);
        // Whatever the number says, it isn't under way any more.
        if (code == kSocketWouldBlock) code = kSocketOtherError;
    }
    if (code == kSocketDone) code = beginLocked(socket);
    if (socket->state == SocketState::kClosed) return true;
    if (code == kSocketDone || code == kSocketWouldBlock) {
        const SocketCode settled = settleLocked(socket);
        if (settled == kSocketDone && code == kSocketWouldBlock) return false;
    } else {
        failConnectLocked(socket, code);
    }
    return connectEndsLocked(socket);
}

void socketConnectFailLocked(Socket* socket, SocketCode code) {
    failConnectLocked(socket, code);
    (void)connectEndsLocked(socket);
}

// Without the class at work it waits by itself, so that it depends on no thread that dispatches
// events: such a thread may be the one that waits.
pelmoStatus socketAwaitConnectLocked(Socket* socket, double deadline) {
    while (socket->state == SocketState::kConnecting) {
        if (!socket->beginning) {
            if (socketConnectAdvanceLocked(socket) || socket->beginning) continue;
            if (!socketPollLocked(socket, POLLOUT, deadline)) return kStatusTimeout;
        } else if (deadline == 0) {
            (void)Cond_Wait(&socket->connectCond, &socket->lock);
        } else {
            const double left = deadline - clockSteadySeconds();
            if (left <= 0) return kStatusTimeout;
            (void)Cond_TimedWait(&socket->connectCond, &socket->lock, left);
        }
    }
    return socket->state == SocketState::kConnected && !socket->interrupted ? kStatusSuccess
                                                                            : kStatusEndOfFile;
}
