#include "watch/core/watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/pelmo.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/services.h"
#include "trace/counts/statistics.h"
#include "trace/run/run_end.h"
#include "trace/run/run_modes.h"
#include "trace/run/settings_check.h"
#include "trace/run/snapshot_sink.h"
#include "trace/run/start_steps.h"
#include "trace/settings.h"
#include "watch/core/name.h"
#include "watch/core/options.h"
#include "watch/core/privileges.h"
#include "watch/core/progress.h"
#include "watch/core/stop.h"

namespace {

constexpr int kUsageStatus = 2;

struct WatchRun {
    // Constant after the command line.
    const Form* form = nullptr;

    // Of the start.
    bool formFailed = false;

    // Of the thread that hands on Snapshots.
    bool wantsMore = true;
};

constinit WatchRun run;

void take(SnapHeader* snapshot) {
    if (!run.wantsMore) return;
    snapshotSort(snapshot);
    servicesFind(snapshot);
    run.wantsMore = run.form->snapshot(*snapshot);
    if (!run.wantsMore) stopAsk();
}

constexpr SnapshotSink kSink = {
    .begin = nullptr, .take = take, .end = nullptr, .wantsSource = true};

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

// What a file that libpcap can't read is, as far as its first bytes say.
const char* kindOfUnreadable(const char* path) {
    struct Kind {
        std::string_view magic;
        const char* words;
    };
    constexpr Kind kKinds[] = {
        {{"\x1f\x8b", 2}, "it is compressed: gzip -dc FILE | pelmowatch ... -r - reads it"},
        {{"\x28\xb5\x2f\xfd", 4}, "it is compressed: zstd -dc FILE | pelmowatch ... -r - reads it"},
        {{"\xfd"
          "7zXZ\0",
          6},
         "it is compressed: xz -dc FILE | pelmowatch ... -r - reads it"},
        {{"BZh", 3}, "it is compressed: bzip2 -dc FILE | pelmowatch ... -r - reads it"},
        {{"\x04\x22\x4d\x18", 4}, "it is compressed: lz4 -dc FILE | pelmowatch ... -r - reads it"},
    };
    char head[8] = {};
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) return "it can't be opened: is its name right?";
    const ssize_t count = read(file, head, sizeof head);
    close(file);
    const std::string_view bytes(head, count > 0 ? static_cast<size_t>(count) : 0);
    for (const Kind& kind : kKinds) {
        if (bytes.starts_with(kind.magic)) return kind.words;
    }
    return bytes.empty() ? "it is empty" : "it isn't a capture (pcap or pcapng)";
}

pelmoStatus openSourceOrSay() {
    const pelmoStatus status = openSource();
    if (status == kStatusSuccess) return status;
    const char* const name =
        traceSettings.liveCapture ? traceSettings.interfaceName : traceSettings.readFile;
    const bool isPiped = std::string_view(name) == "-";
    logPrint("unable to read '%s': %s.", name,
             traceSettings.liveCapture ? "see the line above for the reason"
             : isPiped                 ? "it isn't a capture (pcap or pcapng)"
                                       : kindOfUnreadable(name));
    return statusOf(false);
}

pelmoStatus startForm() {
    return statusOf(run.form->start == nullptr || run.form->start());
}

// The tool goes on without a filter that is refused; here it's an option with a wrong value.
pelmoStatus filterStrictly() {
    const char* const text = traceSettings.filterText;
    const std::string fault = filterFault(captureState.captureHandle, text);
    const bool isBuilt = text == traceSettings.builtFilter.c_str();
    const std::string word =
        std::string(isBuilt ? "the filter" : "--filter:") + " \"" + text + "\":";
    if (!fault.empty()) optionsRefuse(word.c_str(), fault.c_str());
    return statusOf(installFilter(captureState.captureHandle, text));
}

pelmoStatus tellOfCutFrames() {
    if (!traceSettings.liveCapture) warnOfCutFrames(captureState.captureHandle);
    return kStatusSuccess;
}

pelmoStatus showProgress() {
    const bool shows = run.form->showsProgress && !traceSettings.liveCapture;
    return shows && isatty(STDOUT_FILENO) == 0 ? progressStart() : kStatusSuccess;
}

constexpr StartStep kStartSteps[] = {
    // With the rights that the program was started with.
    {kEitherMode, outliveFileLimit},
    {kEitherMode, outliveReaders},
    {kEitherMode, validateFilter},
    {kEitherMode, statsInit},
    {kEitherMode, prepareForm},
    // With those that the source takes, or all for a file.
    {kLiveOnly, privilegesForCapture},
    {kEitherMode, openSourceOrSay},
    {kEitherMode, filterStrictly},
    {kEitherMode, openOutputOfForm},
    // With none, before all threads, which the library brings.
    {kEitherMode, privilegesDrop},
    {kEitherMode, tellOfCutFrames},
    {kEitherMode, pelmo_Open},
    {kEitherMode, stopArm},
    {kEitherMode, startForm},
    {kEitherMode, showProgress},
    {kLiveOnly, markStart},
    {kLiveOnly, startSnapshotTimer},
    {kLiveOnly, watchLink},
    {kLiveOnly, captureThreadStart},
};

void endSource() {
    stopSourceRead();
    if (run.form->sourceEnded != nullptr) run.form->sourceEnded();
}

void runSource() {
    if (!traceSettings.liveCapture) {
        runOffline();
        progressEnd();
        if (run.form->staysOpen && !stopIsAsked()) endSource();
    }
    if (traceSettings.liveCapture || run.form->staysOpen) stopAwait();
}

// The capture thread isn't joined: libpcap may be waiting for a packet. Behind the turn at the lock
// it finds the shutdown. The library's closing joins the thread of a Snapshot under way.
void closeSource() {
    captureState.shuttingDown.store(true, std::memory_order_relaxed);
    captureThreadRelease();
    { const LockGuard guard(statsLock); }
    stopDisarm();
    pelmo_Close();
}

void endForm() {
    const bool isWhole = traceSettings.liveCapture || run.form->staysOpen || !stopIsBySignal();
    if (!run.form->end(isWhole)) endMarkFailed();
    if (!isWhole) logPrint("stopped ahead of the end of %s.", traceSettings.readFile);
}

}  // namespace

int watchMain(int argc, char** argv, std::span<const Form* const> forms) {
    holdStandardStreams();
    logSetProgramName(kWatchName);
    run.form = &optionsParse(argc, argv, forms);
    snapshotSink = kSink;
    traceSettings.tellCutFrames = false;  // forms show how many there were

    const pelmoStatus status = startInOrder(kStartSteps);
    if (status != kStatusSuccess) {
        pelmo_Close();                                              // where it was opened
        if (status == kStatusInvalidArgument) return kUsageStatus;  // and it was told
        // A form has told its own failure.
        if (!run.formFailed) logPrint("startup aborted: %s.", pelmoStatus_GetText(status));
        return 1;
    }
    runSource();
    closeSource();
    endForm();
    return endStatus();
}
