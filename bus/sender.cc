#include "bus/sender.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <optional>
#include <system_error>
#include <utility>

#include "bus/common.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr int64_t kRetryTime = 20 * kMillisecond;
constexpr int64_t kLookTime = 5 * kMillisecond;
constexpr int64_t kPatience = 5 * kSecond;  // while nothing leaves
constexpr int kGraceMilliseconds = 1000;    // for the sender to see the signal by itself

// The second is what a send answers that finds the connection broken.
bool isDisconnected(pelmoStatus status) {
    return status == kStatusDaemonNotConnected || status == kStatusInvalidIoSource;
}

// A send that the end of the transport has cut short.
bool isInterrupted(pelmoStatus status) {
    return stopRequested() && (isDisconnected(status) || status == kStatusInvalidTransport);
}

void watch(int end, uint32_t transport, std::atomic<bool>* isLost) {
    if (stopWait(end, POLLIN, kNever) != StopWait::kStop) return;
    pollfd entry = {end, POLLIN, 0};
    if (poll(&entry, 1, kGraceMilliseconds) != 0) return;
    *isLost = pelmoTransport_DestroyWithin(transport, kLastSeconds) == kStatusDeliveryFailed;
}

// False where a signal ends the wait for the connection.
bool awaitRetry(Sender& sender) {
    sender.waited = true;
    return stopWait(-1, 0, steadyNow() + kRetryTime) != StopWait::kStop;
}

uint64_t lostMessages(uint32_t transport) {
    pelmoUnsent unsent = {};
    (void)pelmoTransport_GetUnsent(transport, &unsent);
    return unsent.lostMessages;
}

// False once nothing has left for a time; a signal ends it, too.
bool awaitAllLeft(uint32_t transport) {
    pelmoUnsent unsent = {};
    uint64_t before = UINT64_MAX;
    int64_t until = 0;
    while (pelmoTransport_GetUnsent(transport, &unsent) == kStatusSuccess &&
           unsent.waitingBytes != 0) {
        const int64_t now = steadyNow();
        if (unsent.waitingBytes != before) until = now + kPatience;
        before = unsent.waitingBytes;
        if (now >= until) return false;
        if (stopWait(-1, 0, now + kLookTime) == StopWait::kStop) return true;
    }
    return true;
}

}  // namespace

// Without an event or a thread nothing is watched.
SendWatch::SendWatch(uint32_t transport) : end(eventfd(0, EFD_CLOEXEC)) {
    if (end < 0) return;
    try {
        thread = std::thread(watch, end, transport, &isLost);
    } catch (const std::system_error&) {
    }
}

SendWatch::~SendWatch() {
    stop();
}

void SendWatch::stop() {
    if (end < 0) return;
    eventfd_write(end, 1);
    if (thread.joinable()) thread.join();
    close(std::exchange(end, -1));
}

pelmoStatus senderSend(Sender& sender, std::span<pelmoMsg* const> messages) {
    sender.waited = false;
    for (pelmoMsg* msg : messages) {
        pelmoStatus status = pelmoTransport_Send(sender.transport, msg);
        while (isDisconnected(status) && sender.wait) {
            if (!awaitRetry(sender)) return kStatusInterrupted;
            status = pelmoTransport_Send(sender.transport, msg);
        }
        if (isInterrupted(status)) return kStatusInterrupted;
        if (status != kStatusSuccess) return status;
        ++sender.sent;
    }
    return kStatusSuccess;
}

pelmoStatus senderSendTogether(Sender& sender, std::span<pelmoMsg* const> messages) {
    sender.waited = false;
    for (;;) {
        uint32_t taken = 0;
        const auto count = static_cast<uint32_t>(messages.size());
        const pelmoStatus status =
            pelmoTransport_SendvTaken(sender.transport, messages.data(), count, &taken);
        sender.sent += taken;
        messages = messages.subspan(taken);
        if (status == kStatusSuccess) return status;
        if (isInterrupted(status)) return kStatusInterrupted;
        // One at a time the others show which of them it is.
        if (!isDisconnected(status)) return senderSend(sender, messages);
        if (!sender.wait) return status;
        if (messages.empty()) return kStatusSuccess;
        if (!awaitRetry(sender)) return kStatusInterrupted;
    }
}

bool senderEnd(Sender& sender, Connection& connection, const std::string& what) {
    if (connection.transport == kIntraProcessTransportId) return true;
    std::optional<double> most;
    if (!awaitAllLeft(sender.transport)) {
        most = 0;
    } else if (stopRequested()) {
        most = kLastSeconds;
    }
    const uint64_t lost = lostMessages(sender.transport);
    if (lost != 0) {
        complain(what + ": " + std::to_string(lost) + " messages lost with the connection",
                 kStatusDeliveryFailed);
    }
    const pelmoStatus status = connectionEnd(connection, most);
    if (status == kStatusDeliveryFailed) complain(what + ": not all has left", status);
    return lost == 0 && status != kStatusDeliveryFailed;
}
