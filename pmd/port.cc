#include "pmd/port.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "lib/base/log_pace.h"
#include "lib/base/text.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/socket/socket.h"
#include "lib/transport/socket/socket_class.h"
#include "pmd/stand_in.h"

namespace {

constexpr uint32_t kMostAccepts = 64;        // per call
constexpr double kAcceptPauseSeconds = 0.5;  // without descriptors
constexpr double kHandedOverSeconds = 1.0;   // until its clients go to the daemon that follows
constexpr double kAskAgainSeconds = 0.02;
constexpr uint32_t kMostAsks = 5;  // a stand-in that has just started listens first

struct Port {
    PortOps ops{};                                            // constant while it is open
    Socket* listener PELMO_GUARDED_BY(daemonLock) = nullptr;  // null: handed over, or closed
    bool isClosed PELMO_GUARDED_BY(daemonLock) = false;
    bool isHandedOver PELMO_GUARDED_BY(daemonLock) = false;
    double clientsEndAt PELMO_GUARDED_BY(daemonLock) = 0;   // after a hand-over; then 0
    double acceptAgainAt PELMO_GUARDED_BY(daemonLock) = 0;  // 0: it accepts
};

constinit Port port;

// A listener that can't accept is always ready, so it isn't watched during the pause.
void pauseAccepting() PELMO_REQUIRES(daemonLock) {
    logPaced("no descriptors are left for more clients: they wait");
    socketCancelReadable(port.listener, nullptr);
    port.acceptAgainAt = clockSteadySeconds() + kAcceptPauseSeconds;
    port.ops.needsTick();
}

void onAcceptable(Socket* listener, void*) {
    const LockGuard guard(daemonLock);
    if (port.listener != listener) return;
    for (uint32_t i = 0; i < kMostAccepts; ++i) {
        Socket* socket = nullptr;
        const SocketCode code = socketAccept(listener, &socket, kFirstIoQueueId);
        if (code == kSocketTooMany || code == kSocketNoBuffers) return pauseAccepting();
        if (code != kSocketDone) return;  // the next call tries again
        port.ops.accepted(socket);
    }
}

bool onHandOver() {
    const LockGuard guard(daemonLock);
    if (port.isClosed) return false;
    if (port.listener == nullptr) return true;
    logPrint("handing the port over to a daemon that asked for it");
    socketDestroy(std::exchange(port.listener, nullptr));
    port.isHandedOver = true;
    port.clientsEndAt = clockSteadySeconds() + kHandedOverSeconds;
    port.ops.needsTick();
    return true;
}

std::string addressText(const PmdOptions& options) {
    const uint32_t address = hostOrder32(options.address);
    char text[32];
    boundedFormat(text, sizeof text, "%u.%u.%u.%u:%u", address >> 24, address >> 16 & 0xff,
                  address >> 8 & 0xff, address & 0xff, hostOrder16(options.port));
    return text;
}

bool startListening(const PmdOptions& options, std::string& error) {
    Socket* listener = nullptr;
    SocketCode code = socketCreateServer(&listener, kPlainSocketClass, kFirstIoQueueId, false);
    if (code == kSocketDone) {
        socketSetMode(listener, SocketMode::kNonBlocking);
        code = socketBind(listener, options.address, options.port, false);
    }
    if (code == kSocketDone) code = socketListen(listener);
    if (code == kSocketDone) {
        const LockGuard guard(daemonLock);
        port.listener = listener;
        if (socketOnReadable(listener, onAcceptable, nullptr) == kStatusSuccess) return true;
        port.listener = nullptr;
    }
    const int cause = errno;
    error = "can't listen on " + addressText(options) + ": " + std::strerror(cause);
    if (listener != nullptr) socketDestroy(listener);
    errno = cause;
    return false;
}

void sleepFor(double seconds) {
    (void)usleep(static_cast<useconds_t>(seconds * 1e6));
}

HandOver askForPort(uint16_t number) {
    HandOver answer = HandOver::kNobody;
    for (uint32_t i = 0; i < kMostAsks && answer == HandOver::kNobody; ++i) {
        if (i != 0) sleepFor(kAskAgainSeconds);
        answer = standInAsk(number);
    }
    return answer;
}

}  // namespace

bool portOpen(const PmdOptions& options, const PortOps& ops, std::string& error) {
    port.ops = ops;
    if (startListening(options, error)) return true;
    if (errno != EADDRINUSE || !options.permanent) return false;
    if (askForPort(options.port) != HandOver::kGiven) return false;
    logPrint("a stand-in hands its port over");
    const double end = clockSteadySeconds() + kHandOverSeconds;
    while (!startListening(options, error)) {
        if (clockSteadySeconds() >= end) return false;
        sleepFor(kAskAgainSeconds);
    }
    return true;
}

void portOffer(const PmdOptions& options) {
    logPrint("listening on %s", addressText(options).c_str());
    if (!options.permanent && !standInOffer(options.port, onHandOver)) {
        logPrint("no other daemon can ask for this port: the local socket can't be opened");
    }
}

void portClose() {
    Socket* listener = nullptr;
    {
        const LockGuard guard(daemonLock);
        port.isClosed = true;
        listener = std::exchange(port.listener, nullptr);
    }
    standInEnd();
    if (listener != nullptr) socketDestroy(listener);
}

bool portNeedsTick() {
    return port.acceptAgainAt != 0 || port.clientsEndAt != 0;
}

void portTick(double now) {
    if (port.acceptAgainAt == 0 || now < port.acceptAgainAt) return;
    port.acceptAgainAt = 0;
    if (port.listener == nullptr) return;
    if (socketOnReadable(port.listener, onAcceptable, nullptr) != kStatusSuccess) {
        port.acceptAgainAt = now + kAcceptPauseSeconds;
    }
}

void portDescriptorsAreBack(double now) {
    if (port.acceptAgainAt != 0) port.acceptAgainAt = now;
}

bool portWasHandedOver() {
    return port.isHandedOver;
}

bool portHandOverEnds(double now) {
    if (port.clientsEndAt == 0 || now < port.clientsEndAt) return false;
    port.clientsEndAt = 0;
    return true;
}
