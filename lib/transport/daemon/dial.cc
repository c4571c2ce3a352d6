#include "lib/transport/daemon/dial.h"

#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/library.h"
#include "lib/transport/daemon/handshake.h"
#include "lib/transport/daemon/link_environment.h"
#include "lib/transport/ipq/ipq.h"
#include "lib/transport/socket/socket.h"
#include "lib/transport/socket/socket_class.h"

namespace {

struct Connects {
    Lock lock = PELMO_LOCK_READY(LockRank::kConnects);
    Connect* first PELMO_GUARDED_BY(lock) = nullptr;
};
constinit Connects connects;

void interruptLocked(Connect* connect) PELMO_REQUIRES(connects.lock) {
    connect->isInterrupted = true;
    Cond_Signal(&connect->wake);
    if (connect->socket != nullptr) socketInterrupt(connect->socket);
    if (connect->ipq != nullptr) ipqInterrupt(connect->ipq);
}

// A socket that the connect watches, destroyed at the end of the scope.
class WatchedSocket {
  public:
    explicit WatchedSocket(Connect* connect) : connect_(connect) {}
    ~WatchedSocket() {
        // By now the queue that took the socket over is watched.
        if (socket_ != nullptr) socketDestroy(take());
    }
    WatchedSocket(const WatchedSocket&) = delete;
    WatchedSocket& operator=(const WatchedSocket&) = delete;

    // False for a connect that was interrupted.
    [[nodiscard]] bool hold(Socket* socket) {
        socket_ = socket;
        return connectWatch(connect_, socket, nullptr);
    }

    // The caller's from here on; null for none.
    [[nodiscard]] Socket* take() {
        (void)connectWatch(connect_, nullptr, nullptr);
        return std::exchange(socket_, nullptr);
    }

    [[nodiscard]] Socket* get() const { return socket_; }

  private:
    Connect* connect_;
    Socket* socket_ = nullptr;
};

// What waits between two processes of a machine is best still in the cache when it is read. The
// system would let megabytes wait.
constexpr uint32_t kNearSendBufferBytes = 262'144;

pelmoStatus makeSocket(WatchedSocket& held, bool isSecure) {
    Socket* socket = nullptr;
    const SocketCode code = socketCreateClient(
        &socket, isSecure ? kSecureSocketClass : kPlainSocketClass, kFirstIoQueueId, false);
    if (code == kSocketNoBuffers) return kStatusNoMemory;
    if (code != kSocketDone) return kStatusDaemonNotConnected;
    return held.hold(socket) ? kStatusSuccess : kStatusDaemonNotConnected;
}

pelmoStatus reachDaemon(WatchedSocket& held, const DialTarget& target) {
    const pelmoStatus status = makeSocket(held, target.isSecure);
    if (status != kStatusSuccess) return status;
    const uint32_t address = target.address.address;
    SocketCode code = socketConnect(
        held.get(), address != 0 ? address : hostOrder32(kLoopbackAddress), target.address.port);
    if (code == kSocketWouldBlock &&
        socketWaitConnected(held.get(), linkEnvironment.connectSeconds) == kStatusSuccess) {
        code = kSocketDone;
    }
    if (code != kSocketDone) return kStatusDaemonNotConnected;
    // It also works with the system's own.
    if (socketPeerIsHere(held.get())) {
        (void)socketSetSendBuffer(held.get(), kNearSendBufferBytes);
    }
    return kStatusSuccess;
}

pelmoStatus shakeHands(Socket* socket, Handshake* handshake) {
    for (;;) {
        uint8_t bytes[kHandshakeMostBytes];
        uint32_t moved = 0;
        const auto wanted = static_cast<uint32_t>(handshake->wantedBytes);
        if (socketRead(socket, bytes, wanted, &moved) != kSocketDone || moved != wanted) {
            return handshakeReadCutOff(*handshake);
        }
        const HandshakeResult result = handshakeTake(handshake, bytes);
        if (result.outcome == kHandshakeAgreed) return kStatusSuccess;
        if (result.outcome == kHandshakeFailed) return result.status;
        const auto size = static_cast<uint32_t>(result.answer.size());
        if (socketWrite(socket, result.answer.data(), size, &moved) != kSocketDone) {
            return kHandshakeWriteCutOff;
        }
    }
}

pelmoStatus makeQueue(Dialed* out, WatchedSocket& held, const HelloFrame& terms, Connect* connect) {
    Ipq* ipq = nullptr;
    const pelmoStatus status = ipqCreate(&ipq, &terms, kFirstIoQueueId, held.take());
    if (status != kStatusSuccess) return status;
    if (!connectWatch(connect, nullptr, ipq)) {
        (void)connectWatch(connect, nullptr, nullptr);
        ipqClose(ipq, false, nullptr);
        return kStatusDaemonNotConnected;
    }
    out->ipq = ipq;
    return kStatusSuccess;
}

pelmoStatus agree(Dialed* out, WatchedSocket& held, const DialTarget& target, Connect* connect) {
    if (target.keepsAlive) (void)socketSetKeepAlive(held.get(), true);
    out->deadline = clockSteadySeconds() + linkEnvironment.answerSeconds;
    socketSetMode(held.get(), SocketMode::kFullyBlocking);
    socketSetDeadline(held.get(), out->deadline);
    Handshake handshake = handshakeBegin(target.address.address == 0);
    const pelmoStatus status = shakeHands(held.get(), &handshake);
    return status == kStatusSuccess ? makeQueue(out, held, handshake.frame, connect) : status;
}

// `isReached`: somebody accepted the connection, so that starting a daemon is of no use.
pelmoStatus dialOnce(Dialed* out, const DialTarget& target, Connect* connect, bool* isReached) {
    WatchedSocket held(connect);
    pelmoStatus status = reachDaemon(held, target);
    *isReached = status == kStatusSuccess;
    if (*isReached) status = agree(out, held, target, connect);
    return status;
}

}  // namespace

pelmoStatus connectEnter(Connect* connect, const DaemonLink* link) {
    connect->link = link;
    if (Cond_Init(&connect->wake) != kStatusSuccess) return kStatusNoMemory;
    const LockGuard guard(connects.lock);
    connect->next = connects.first;
    connect->place = &connects.first;
    if (connect->next != nullptr) connect->next->place = &connect->next;
    connects.first = connect;
    return kStatusSuccess;
}

void connectLeave(Connect* connect) {
    {
        const LockGuard guard(connects.lock);
        *connect->place = connect->next;
        if (connect->next != nullptr) connect->next->place = connect->place;
    }
    Cond_Destroy(&connect->wake);
}

bool connectWatch(Connect* connect, Socket* socket, Ipq* ipq) {
    const LockGuard guard(connects.lock);
    connect->socket = socket;
    connect->ipq = ipq;
    return !connect->isInterrupted;
}

bool connectIsInterrupted(Connect* connect) {
    const LockGuard guard(connects.lock);
    return connect->isInterrupted;
}

bool connectSleep(Connect* connect, double seconds) {
    const LockGuard guard(connects.lock);
    // Only an interrupt signals the condition.
    if (!connect->isInterrupted)
        (void)linkEnvironment.wait(&connect->wake, &connects.lock, seconds);
    return !connect->isInterrupted;
}

void connectsInterrupt(const DaemonLink* link) {
    const LockGuard guard(connects.lock);
    for (Connect* connect = connects.first; connect != nullptr; connect = connect->next) {
        if (link == nullptr || connect->link == link) interruptLocked(connect);
    }
}

pelmoStatus dialDaemon(Dialed* out, const DialTarget& target, bool mayStart, Connect* connect) {
    mayStart = mayStart && !target.isSecure;
    while (libraryIsOpen() && !connectIsInterrupted(connect)) {
        bool isReached = false;
        const pelmoStatus status = dialOnce(out, target, connect, &isReached);
        if (status == kStatusSuccess) return status;
        if (connectIsInterrupted(connect)) break;
        if (isReached || !mayStart || status != kStatusDaemonNotConnected) return status;
        mayStart = false;
        if (!linkEnvironment.launch(target.specification)) return status;
        if (!connectSleep(connect, linkEnvironment.startSeconds)) break;
    }
    return kStatusDaemonNotConnected;
}
