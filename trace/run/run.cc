#include "trace/run/run.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/base/path.h"
#include "lib/base/version.h"
#include "lib/pelmo.h"
#include "lib/transport/socket/secure_modules.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_rotation.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/statistics.h"
#include "trace/run/capabilities.h"
#include "trace/run/command_line.h"
#include "trace/run/report_output.h"
#include "trace/run/run_end.h"
#include "trace/run/run_modes.h"
#include "trace/run/settings_check.h"
#include "trace/run/snapshot_sink.h"
#include "trace/run/start_steps.h"
#include "trace/run/stop_wait.h"
#include "trace/settings.h"

namespace {

constexpr char kBanner[] =
    "\nPelmo trace program\n\nVersion " PELMO_BUS_VERSION " V1 11/12/20 06:42:40\n";
constexpr double kRotationCheckSeconds = 1.0;

// How long the end of a live run may take in all, and how long of that the log waits for its
// reader.
constexpr double kEndSeconds = 0.7;
constexpr double kLogEndSeconds = 0.2;

pelmoStatus openLog() {
    return logOpen(traceSettings.logFile, traceSettings.logLimitBytes,
                   traceSettings.logMaxRotations, kBanner);
}

pelmoStatus chooseInterface() {
    captureState.interfaceName = liveInterface(traceSettings.interfaceName);
    if (captureState.interfaceName == nullptr) return kStatusNotInitialized;
    std::printf("Using interface %s\n", captureState.interfaceName);
    std::fflush(stdout);
    return kStatusSuccess;
}

pelmoStatus describeSource() {
    if (traceSettings.liveCapture) return kStatusSuccess;
    warnOfCutFrames(pcap_snapshot(captureState.captureHandle));
    describeSavefile(captureState.captureHandle);
    return kStatusSuccess;
}

pelmoStatus printFilter() {
    std::printf("Using filter %s\n", traceSettings.filterText);
    std::fflush(stdout);
    return kStatusSuccess;
}

// The path is made absolute because a live run leaves its directory and a rotation comes later.
pelmoStatus openCaptureFile() {
    const char* const path = traceSettings.writeFile;
    if (path == nullptr) return kStatusSuccess;

    if (!captureFileOpen(captureState.captureHandle, path)) {
        logPrint("failed to open save file '%s'", path);
        return kStatusNotInitialized;
    }
    captureState.savingFrames = true;

    const std::unique_ptr<char, decltype(&std::free)> resolved(absolutePath(path), std::free);
    if (!resolved) {
        logPrint("failed to resolve save file '%s'.", path);
        return kStatusNotInitialized;
    }
    traceSettings.resolvedWriteFile = resolved.get();
    traceSettings.writeFile = traceSettings.resolvedWriteFile.c_str();
    return kStatusSuccess;
}

pelmoStatus startRotationTimer() {
    if (traceSettings.captureLimitBytes == 0) return kStatusSuccess;
    captureRotationStart();
    return startTimer<onRotationTimer>(kRotationCheckSeconds);
}

// The order is what operators see in the log, and each step needs those before it.
constexpr StartStep kStartSteps[] = {
    {kEitherMode, outliveFileLimit},
    {kEitherMode, validateLogRotation},
    {kEitherMode, validateCaptureRotation},
    {kEitherMode, validateFilter},
    {kEitherMode, validateFiles},
    {kEitherMode, statsInit},
    {kEitherMode, openLog},
    {kLiveOnly, chooseInterface},
    {kEitherMode, openSource},
    {kEitherMode, describeSource},
    {kLiveOnly, outliveReaders},
    {kEitherMode, openCaptureFile},
    {kEitherMode, printFilter},
    {kEitherMode, filterSource},
    {kLiveOnly, markStart},
    {kEitherMode, capabilitiesKeepOfTool},
    {kEitherMode, pelmo_Open},
    {kEitherMode, startRotationTimer},
    {kLiveOnly, startSnapshotTimer},
    {kLiveOnly, watchLink},
    {kLiveOnly, captureThreadStart},
};

void leaveDirectory() {
    if (chdir("/") != 0) return;  // no matter: all paths are absolute by now
}

// The clean-up of the wait may log too, and a reader of the log may have stalled.
void boundEnd() {
    endLimitStart(kEndSeconds);
    logBoundWaits(kLogEndSeconds);
}

void runLive() {
    if (!traceSettings.foreground) leaveDirectory();
    waitForStop(boundEnd);
}

// The capture thread isn't joined: a frame in flight may still want to be saved or counted. After
// this turn at the lock it finds no file open, and what it counts isn't read.
void closeCaptureFile() {
    const LockGuard guard(statsLock);
    captureFileClose();
}

// With a log file the standard error stream hasn't heard of it yet. A live run has gone on for what
// it is there for; of an offline run that saves, the saved capture is what was asked for.
void judgeCaptureFile() {
    if (traceSettings.liveCapture || captureFileIsComplete()) return;
    endMarkFailed();
    if (traceSettings.logFile == nullptr) return;
    logPrint("save file '%s' isn't complete.", traceSettings.writeFile);
}

// A live run ends because it was asked to, whatever it lost and logged meanwhile.
void markLostLines() {
    if (!traceSettings.liveCapture && logHasLoss()) endMarkFailed();
}

}  // namespace

pelmoStatus startTrace() {
    snapshotSink = kReportSink;
    return startInOrder(kStartSteps);
}

void stopTrace() {
    logPrint("Shutting down ...");
    captureState.shuttingDown.store(true, std::memory_order_relaxed);
    captureThreadRelease();
    closeCaptureFile();
    logClose();
    judgeCaptureFile();
    if (traceSettings.liveCapture) stopWaitRelease();
    // All that was captured is safe by now. This joins the thread of a report under way: where that
    // report's reader has stalled, the limit of the end comes first.
    pelmo_Close();
}

int traceMain(int argc, char** argv) {
    holdStandardStreams();
    if (secureBindAll(argv) != kStatusSuccess) return 1;  // it has logged why
    logSetProgramName(kProgramName);
    parseArguments(argc, argv);
    logPrint(kBanner);

    const pelmoStatus status = startTrace();
    if (status != kStatusSuccess) {
        logPrint("startup aborted: %s.", pelmoStatus_GetText(status));
        pelmo_Close();  // where it was opened: none of its threads shall meet the end of the
                        // process
        return 1;
    }
    if (traceSettings.liveCapture) {
        runLive();
    } else {
        runOffline();
    }
    stopTrace();
    markLostLines();
    return endStatus();
}
