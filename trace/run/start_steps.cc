#include "trace/run/start_steps.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "lib/base/clock.h"
#include "lib/base/log_pace.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/run/link_watch.h"
#include "trace/run/run_modes.h"
#include "trace/settings.h"

namespace {

pelmoStatus outlive(int number) {
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigaction(number, &action, nullptr);
    return kStatusSuccess;
}

pcap_t* openNamed() {
    if (!traceSettings.liveCapture) return openOffline(traceSettings.readFile);
    return openLive(captureState.interfaceName);
}

}  // namespace

pelmoStatus startInOrder(std::span<const StartStep> steps) {
    for (const StartStep& step : steps) {
        if (step.liveOnly && !traceSettings.liveCapture) continue;
        const pelmoStatus status = step.run();
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

void holdStandardStreams() {
    int descriptor;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor >= 0) close(descriptor);
}

pelmoStatus outliveFileLimit() {
    return outlive(SIGXFSZ);
}

pelmoStatus outliveReaders() {
    return outlive(SIGPIPE);
}

pelmoStatus openSource() {
    if (traceSettings.liveCapture && captureState.interfaceName == nullptr) {
        captureState.interfaceName = traceSettings.interfaceName;
    }
    captureState.captureHandle = openNamed();
    return captureState.captureHandle != nullptr ? kStatusSuccess : kStatusNotInitialized;
}

pelmoStatus filterSource() {
    (void)installFilter(captureState.captureHandle, traceSettings.filterText);
    return kStatusSuccess;
}

pelmoStatus markStart() {
    TimeSpec now;
    clockNow(&now);
    snapshotSetStart(now);
    logPaceBegin();
    return kStatusSuccess;
}

pelmoStatus startTimerOf(double seconds, pelmoEventCallback onTick) {
    uint32_t timer = kNoId;
    return pelmoEvent_CreateTimer(&timer, kTimerQueueId, onTick, seconds, nullptr);
}

pelmoStatus startSnapshotTimer() {
    return startTimer<onSnapshotTimer>(snapshotTimerSeconds());
}

pelmoStatus watchLink() {
    linkWatchStart(captureState.interfaceName, nullptr);
    return kStatusSuccess;
}
