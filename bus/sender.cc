#include "bus/sender.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <system_error>

#include "bus/steady_time.h"
#include "bus/stop.h"

namespace {

constexpr int64_t kRetryTime = 20 * kMillisecond;
constexpr int kGraceMilliseconds = 1000;  // for the sender to see the signal by itself

// The second is what a send answers that finds the connection broken.
bool isDisconnected(pelmoStatus status) {
    return status == kStatusDaemonNotConnected || status == kStatusInvalidIoSource;
}

// A send that the end of the transport has cut short.
bool isInterrupted(pelmoStatus status) {
    return stopRequested() && (isDisconnected(status) || status == kStatusInvalidTransport);
}

void watch(int end, uint32_t transport) {
    if (stopWait(end, POLLIN, kNever) != StopWait::kStop) return;
    pollfd entry = {end, POLLIN, 0};
    if (poll(&entry, 1, kGraceMilliseconds) == 0) pelmoTransport_Destroy(transport);
}

}  // namespace

// Without an event or a thread nothing is watched.
SendWatch::SendWatch(uint32_t transport) : end(eventfd(0, EFD_CLOEXEC)) {
    if (end < 0) return;
    try {
        thread = std::thread(watch, end, transport);
    } catch (const std::system_error&) {
    }
}

SendWatch::~SendWatch() {
    if (end < 0) return;
    eventfd_write(end, 1);
    if (thread.joinable()) thread.join();
    close(end);
}

pelmoStatus senderSend(Sender& sender, std::span<pelmoMsg* const> messages) {
    sender.waited = false;
    for (pelmoMsg* msg : messages) {
        pelmoStatus status = pelmoTransport_Send(sender.transport, msg);
        while (isDisconnected(status) && sender.wait) {
            sender.waited = true;
            if (stopWait(-1, 0, steadyNow() + kRetryTime) == StopWait::kStop) {
                return kStatusInterrupted;
            }
            status = pelmoTransport_Send(sender.transport, msg);
        }
        if (isInterrupted(status)) return kStatusInterrupted;
        if (status != kStatusSuccess) return status;
        ++sender.sent;
    }
    return kStatusSuccess;
}

pelmoStatus senderSendTogether(Sender& sender, std::span<pelmoMsg* const> messages) {
    const auto count = static_cast<uint32_t>(messages.size());
    const pelmoStatus status = pelmoTransport_Sendv(sender.transport, messages.data(), count);
    // None has left: one at a time they show which of them it is, or wait.
    if (status != kStatusSuccess) return senderSend(sender, messages);
    sender.sent += count;
    sender.waited = false;
    return kStatusSuccess;
}
