#include "bus/sender.h"

#include "bus/steady_time.h"
#include "bus/stop.h"

namespace {

constexpr int64_t kRetryTime = 20 * kMillisecond;

// The second is what a send answers that finds the connection broken.
bool isDisconnected(pelmoStatus status) {
    return status == kStatusDaemonNotConnected || status == kStatusInvalidIoSource;
}

}  // namespace

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
