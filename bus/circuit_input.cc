#include "bus/circuit_input.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <new>
#include <system_error>

#include "bus/common.h"
#include "bus/composer.h"
#include "bus/sender.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr const char* kLineSubject = "LINE";

// The circuit's end is reported where it is noticed.
bool isCircuitGone(pelmoStatus status) {
    return status == kStatusCircuitNotConnected || status == kStatusInterrupted;
}

}  // namespace

bool CircuitInput::start(const BusSettings& settings, uint32_t circuit, int64_t graceTime) {
    BusSettings composed = settings;
    composed.subjects = {kLineSubject};
    composed.lines = true;
    composed.json = false;  // that is about what is printed
    stop_ = eventfd(0, EFD_CLOEXEC);
    try {
        if (stop_ >= 0) {
            thread_ = std::thread([this, composed, circuit, graceTime] {
                try {
                    run(composed, circuit, graceTime);
                } catch (const std::bad_alloc&) {
                    complain("input", kStatusNoMemory);
                    status_ = kExitFailed;
                }
                hasEnded_ = true;
                const OwnedMessage wake = messageMake();
                if (pelmoMsg_SetSendSubject(wake.get(), wakeSubject_) == kStatusSuccess) {
                    static_cast<void>(pelmoTransport_Send(kIntraProcessTransportId, wake.get()));
                }
            });
        }
    } catch (const std::system_error&) {
    }
    if (!thread_.joinable()) complain("input", kStatusOsError);
    return thread_.joinable();
}

CircuitInput::~CircuitInput() {
    stop();
    if (stop_ >= 0) close(stop_);
}

void CircuitInput::stop() {
    isStopped_ = true;
    if (stop_ >= 0) eventfd_write(stop_, 1);
    if (thread_.joinable()) thread_.join();
}

bool CircuitInput::stopLeavesSome() {
    stop();
    return leavesSome_;
}

bool CircuitInput::ended(ExitStatus* out) const {
    if (hasEnded_) *out = status_;
    return hasEnded_;
}

// False if there is nothing left to wait for.
bool CircuitInput::awaitLine() const {
    pollfd entries[] = {
        {STDIN_FILENO, POLLIN, 0}, {stop_, POLLIN, 0}, {stopDescriptor(), POLLIN, 0}};
    static_cast<void>(poll(entries, 3, -1));  // woken early it looks again
    return !isStopped_ && !stopRequested();
}

void CircuitInput::run(const BusSettings& settings, uint32_t circuit, int64_t graceTime) {
    pollfd stop = {stop_, POLLIN, 0};
    static_cast<void>(poll(&stop, 1, static_cast<int>(graceTime / kMillisecond)));
    Composer composer = composerOpen(settings, UINT64_MAX);
    ComposerSlot slot;
    Sender sender{circuit};
    while (!isStopped_) {
        const ComposeResult result = composerNext(composer, slot, false);
        if (result == ComposeResult::kNone) {
            if (!awaitLine()) break;
            continue;
        }
        if (result == ComposeResult::kFailed) status_ = kExitFailed;
        if (result != ComposeResult::kMade) return;
        pelmoMsg* const message = slot.msg.get();
        const pelmoStatus status = senderSend(sender, {&message, 1});
        if (status == kStatusSuccess) continue;
        leavesSome_ = true;
        if (!isCircuitGone(status) && !isStopped_) {
            complain(std::string("send ") + kLineSubject, status);
            status_ = kExitFailed;
        }
        return;
    }
    leavesSome_ = composerNext(composer, slot, false) == ComposeResult::kMade;
}
