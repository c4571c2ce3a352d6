#include "watch/core/watch.h"

#include <net/if.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/pelmo.h"
#include "programs/streams.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/services.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/run/link_watch.h"
#include "trace/run/run_end.h"
#include "trace/run/run_modes.h"
#include "trace/run/settings_check.h"
#include "trace/run/snapshot_sink.h"
#include "trace/run/start_steps.h"
#include "trace/settings.h"
#include "watch/capture/source.h"
#include "watch/core/options.h"
#include "watch/core/privileges.h"
#include "watch/core/progress.h"
#include "watch/core/span.h"
#include "watch/core/stop.h"
#include "watch/core/watched.h"

namespace {

constexpr int kUsageStatus = 2;
constexpr int kBlindStatus = 4;

// Between two looks for an interface.
constexpr double kLookSeconds = 0.5;
constexpr double kLastSeconds = 0.001;

struct WatchRun {
    // Constant after the command line.
    const Form* form = nullptr;

    // Of the start.
    bool formFailed = false;

    // Of the thread that hands on Snapshots.
    bool wantsMore = true;
    SpanWatch span = {};
    bool handedOnLast = false;

    // None of the saved captures could be read, or nothing in them was the bus's.
    bool isUnread = false;
    bool isBlind = false;
};

constinit WatchRun run;

int64_t steadyNanoseconds() {
    return static_cast<int64_t>(clockMonotonicNanoseconds());
}

void take(SnapHeader* snapshot) {
    snapshot->span = spanTake(run.span, *snapshot, steadyNanoseconds());
    if (!run.wantsMore || run.form->snapshot == nullptr) return;
    snapshotSort(snapshot);
    servicesFind(snapshot);
    run.wantsMore = run.form->snapshot(*snapshot);
    if (!run.wantsMore) stopAsk();
}

// The interface is back, or the end is asked for: then false.
bool awaitInterface(const char* reason) {
    watchedSet(WatchState::kWaiting, reason);
    logPrint("waiting for interface %s.", traceSettings.interfaceName);
    captureDrain(captureState.captureHandle, analyzePacket);
    while (!captureAttachAgain(captureState.captureHandle, traceSettings.interfaceName)) {
        if (!stopSleep(kLookSeconds)) return false;
    }
    logPrint("interface %s is back: capture goes on.", traceSettings.interfaceName);
    watchedSet(WatchState::kLive, nullptr);
    linkWatchFollow();
    return true;
}

// What was captured last is shown before the end.
void handOnLast() {
    if (std::exchange(run.handedOnLast, true)) return;
    TimeSpec now;
    clockNow(&now);
    snapshotHandOn(now);
    stopAsk();
}

bool captureFailed(const char* reason) {
    if (sourceSettings.waitsForInterface) return awaitInterface(reason);
    endMarkFailed();
    watchedSet(WatchState::kFailed, reason);
    captureDrain(captureState.captureHandle, analyzePacket);
    if (!run.form->staysOpen && startTimer<handOnLast>(kLastSeconds) != kStatusSuccess) stopAsk();
    return false;
}

// libpcap notices by itself, unless one of the same name comes at once.
void linkChanged(LinkChange change) {
    if (change != LinkChange::kGone) return watchedSetLink(change == LinkChange::kUp);
    const WatchState state = watchedState().state;
    if (state == WatchState::kLive || state == WatchState::kDown) {
        captureDetach(captureState.captureHandle);
    }
}

constexpr SnapshotSink kSink = {.begin = nullptr,
                                .take = take,
                                .end = nullptr,
                                .wantsSource = true,
                                .keepsGrid = true,
                                .fillSource = sourceFill,
                                .captureFailed = captureFailed};

pelmoStatus statusOf(bool done) {
    run.formFailed = !done;
    return done ? kStatusSuccess : kStatusNotInitialized;
}

pelmoStatus prepareForm() {
    return statusOf(run.form->prepare == nullptr || run.form->prepare());
}

pelmoStatus openOutputOfForm() {
    return statusOf(run.form->openOutput == nullptr || run.form->openOutput());
}

// Signals end the process meanwhile: nothing is open yet.
void awaitInterfaceOfStart() {
    const char* const name = traceSettings.interfaceName;
    if (!traceSettings.liveCapture || !sourceSettings.waitsForInterface) return;
    if (if_nametoindex(name) != 0) return;
    logPrint("waiting for interface %s.", name);
    while (if_nametoindex(name) == 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(kLookSeconds));
    }
}

pelmoStatus openSourceOrSay() {
    awaitInterfaceOfStart();
    const pelmoStatus status = sourceOpen();
    if (status == kStatusSuccess) return status;
    logPrint("unable to read '%s': see the line above for the reason.",
             traceSettings.interfaceName);
    return statusOf(false);
}

// It has logged why.
pelmoStatus beginSource() {
    return statusOf(sourceBegin() == kStatusSuccess);
}

pelmoStatus beginWatched() {
    return watchedBegin(run.form->sourceChanged);
}

pelmoStatus watchLinkState() {
    linkWatchStart(captureState.interfaceName, linkChanged);
    return kStatusSuccess;
}

pelmoStatus startForm() {
    return statusOf(run.form->start == nullptr || run.form->start());
}

// The tool goes on without a filter that is refused; here it's an option with a wrong value.
pelmoStatus filterStrictly() {
    const char* const text = traceSettings.filterText;
    const std::string fault = sourceFilterFault(text);
    const bool isBuilt = text == traceSettings.builtFilter.c_str();
    const std::string word = std::string(isBuilt ? "the filter " : "--filter ") + text;
    if (!fault.empty()) optionsRefuse(word, fault);
    return kStatusSuccess;
}

pelmoStatus showProgress() {
    const bool shows = run.form->showsProgress && !traceSettings.liveCapture;
    return shows && isatty(STDOUT_FILENO) == 0 ? progressStart() : kStatusSuccess;
}

pelmoStatus markStartOfSpans() {
    spanBegin(run.span, steadyNanoseconds());
    return markStart();
}

constexpr StartStep kStartSteps[] = {
    // With the rights that the program was started with.
    {kEitherMode, validateFilter},
    {kEitherMode, statsInit},
    {kEitherMode, prepareForm},
    // With those that the source takes, or all for a file.
    {kLiveOnly, privilegesForCapture},
    {kEitherMode, filterStrictly},
    {kEitherMode, openSourceOrSay},
    {kEitherMode, openOutputOfForm},
    // With none, before all threads, which the library brings.
    {kEitherMode, privilegesDrop},
    {kEitherMode, beginSource},
    {kEitherMode, pelmo_Open},
    {kEitherMode, stopArm},
    {kEitherMode, beginWatched},
    {kEitherMode, startForm},
    {kEitherMode, showProgress},
    {kLiveOnly, markStartOfSpans},
    {kLiveOnly, startSnapshotTimer},
    {kLiveOnly, watchLinkState},
    {kLiveOnly, captureThreadStart},
};

void endSource() {
    stopSourceRead();
    if (sourceHasFault()) return watchedSet(WatchState::kFailed, "a file is not read whole");
    watchedSet(WatchState::kRead, nullptr);
}

// A capture with nothing of the bus may be an idle bus, or one that is captured in a form in which
// it isn't seen.
bool logIfBlind(const char* ofWhich = "") {
    const std::string text = sourceBlindText();
    if (!text.empty()) logPrint("%s%s", ofWhich, text.c_str());
    return !text.empty();
}

void reportBlindSource(const char* ofWhich = "") {
    if (run.isUnread || stopIsAsked()) return;
    if (logIfBlind(ofWhich)) run.isBlind = true;
}

// False where one of the captures can't be read at all.
bool readCaptures() {
    if (!sourceSettings.against.empty()) {
        if (!sourceRunAgainst()) return false;
        reportBlindSource("--against: ");
        if (stopIsAsked()) return true;
        run.span = {};
        if (!sourceTurn()) {
            logPrint("unable to read the second capture: out of memory.");
            endMarkFailed();
            return false;
        }
    }
    return sourceRunOffline();
}

void runSource() {
    if (!traceSettings.liveCapture) {
        run.isUnread = !readCaptures();
        progressEnd();
        if (sourceHasFault()) endMarkFailed();
        reportBlindSource();
        if (run.isUnread) {
            stopAsk();  // what has no source doesn't stay open
        } else if (run.form->staysOpen && !stopIsAsked()) {
            endSource();
        }
    }
    if (traceSettings.liveCapture || run.form->staysOpen) stopAwait();
}

// The capture thread isn't joined: libpcap may be waiting for a packet. Once it has had the lock
// it finds the shutdown. The library's closing joins the thread of a Snapshot under way.
void closeSource() {
    captureState.shuttingDown.store(true, std::memory_order_relaxed);
    captureThreadRelease();
    { const LockGuard guard(statsLock); }
    stopDisarm();
    pelmo_Close();
}

void endForm() {
    const bool isCutOff = !traceSettings.liveCapture && !run.form->staysOpen && stopIsBySignal();
    if (!run.form->end(!isCutOff && !run.isUnread)) endMarkFailed();
    if (isCutOff) logPrint("stopped before the end of %s.", traceSettings.readFile);
}

}  // namespace

int watchMain(int argc, char** argv, std::span<const Form* const> forms) {
    streamsHold();
    streamsOutliveFaults();
    logSetProgramName(kWatchName);
    run.form = &optionsParse(argc, argv, forms);
    snapshotSink = kSink;
    sourceSettings.takePacket = run.form->packet;
    traceSettings.logCutFrames = false;  // forms show how many there were

    const pelmoStatus status = startInOrder(kStartSteps);
    if (status != kStatusSuccess) {
        pelmo_Close();                                              // where it was opened
        if (status == kStatusInvalidArgument) return kUsageStatus;  // and was reported
        // A form has reported its own failure.
        if (!run.formFailed) logPrint("startup aborted: %s.", pelmoStatus_GetText(status));
        return 1;
    }
    runSource();
    closeSource();
    endForm();
    if (traceSettings.liveCapture) (void)logIfBlind();  // once the form has given the terminal back
    const bool isStrictlyBlind = optionsAreStrict() && run.isBlind;
    return endStatus() == 0 && isStrictlyBlind ? kBlindStatus : endStatus();
}
