#include "lib/runtime/loopback_pair.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

constexpr int kMostStrangers = 32;
constexpr int kAwaitMilliseconds = 100;
constexpr int kHandOnMilliseconds = 10;

// Closed at the end of the scope unless taken.
class Handle {
  public:
    explicit Handle(int number) : handle(number) {}
    ~Handle() {
        // close isn't repeated on EINTR: the descriptor is closed in any case.
        if (handle >= 0) close(handle);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    [[nodiscard]] int number() const { return handle; }
    [[nodiscard]] int take() { return std::exchange(handle, -1); }

  private:
    int handle;
};

struct Address {
    sockaddr_in in{};
    socklen_t size = sizeof(in);

    sockaddr* generic() { return reinterpret_cast<sockaddr*>(&in); }
};

bool isSame(const sockaddr_in& a, const sockaddr_in& b) {
    return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

int newSocket() {
    return socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
}

bool listenOnLoopback(int listener, Address* out) {
    Address address;
    address.in.sin_family = AF_INET;
    address.in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, address.generic(), address.size) != 0) return false;
    if (listen(listener, 1) != 0) return false;
    *out = {};
    return getsockname(listener, out->generic(), &out->size) == 0;
}

// Begins to connect and returns its own address. An interrupted connect continues by itself.
bool connectTo(int connecting, Address target, Address* own) {
    if (connect(connecting, target.generic(), target.size) != 0 && errno != EINPROGRESS &&
        errno != EINTR) {
        return false;
    }
    return getsockname(connecting, own->generic(), &own->size) == 0;
}

bool awaitPeer(int listener) {
    pollfd entry{.fd = listener, .events = POLLIN, .revents = 0};
    int ready;
    do {
        ready = poll(&entry, 1, kAwaitMilliseconds);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool setNoDelay(int socket) {
    const int on = 1;
    return setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0;
}

// The bytes written to one end that haven't arrived at the other end, where they count whether read
// or not. The system updates both counts with the socket's lock held, so a concurrent write is seen
// as a whole. Returns 0 for a local pair, which has no such counts.
uint64_t bytesUnderWay(const LoopbackPair& pair) {
    tcp_info writer = {};
    tcp_info reader = {};
    socklen_t size = sizeof(writer);
    if (getsockopt(pair.writeHandle, IPPROTO_TCP, TCP_INFO, &writer, &size) != 0) return 0;
    size = sizeof(reader);
    if (getsockopt(pair.readHandle, IPPROTO_TCP, TCP_INFO, &reader, &size) != 0) return 0;
    const uint64_t sent = writer.tcpi_bytes_sent - writer.tcpi_bytes_retrans;
    const uint64_t written = sent + writer.tcpi_notsent_bytes;
    return written > reader.tcpi_bytes_received ? written - reader.tcpi_bytes_received : 0;
}

bool makeTcpPair(LoopbackPair* out) {
    const Handle listener(newSocket());
    Handle connecting(newSocket());
    if (listener.number() < 0 || connecting.number() < 0) return false;
    Address target;
    Address own;
    if (!listenOnLoopback(listener.number(), &target)) return false;
    if (!connectTo(connecting.number(), target, &own)) return false;
    Handle accepted(loopbackAcceptFrom(listener.number(), own.in));
    if (accepted.number() < 0) return false;
    if (!setNoDelay(accepted.number()) || !setNoDelay(connecting.number())) return false;
    *out = {.readHandle = accepted.take(), .writeHandle = connecting.take()};
    return true;
}

bool makeLocalPair(LoopbackPair* out) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return false;
    *out = {.readHandle = ends[0], .writeHandle = ends[1]};
    return true;
}

}  // namespace

int loopbackAcceptFrom(int listener, const sockaddr_in& own) {
    for (int strangers = 0; strangers <= kMostStrangers; ++strangers) {
        if (!awaitPeer(listener)) return -1;
        Address peer;
        Handle accepted(
            accept4(listener, peer.generic(), &peer.size, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (accepted.number() >= 0 && isSame(peer.in, own)) return accepted.take();
        if (accepted.number() < 0 && errno != EINTR && errno != EAGAIN && errno != ECONNABORTED) {
            return -1;
        }
    }
    return -1;
}

bool loopbackPairMake(LoopbackPair* out) {
    return makeTcpPair(out) || makeLocalPair(out);
}

bool loopbackPairIsStuck(const LoopbackPair& pair) {
    // Loopback delivers a byte at once, except for rare delays, which are waited for.
    for (const int milliseconds : {0, kHandOnMilliseconds}) {
        pollfd entry{.fd = pair.readHandle, .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, milliseconds) > 0 || bytesUnderWay(pair) == 0) return false;
    }
    return true;
}

void loopbackPairClose(const LoopbackPair& pair) {
    close(pair.readHandle);
    close(pair.writeHandle);
}
