#include "watch/top/top.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <new>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/base/thread.h"
#include "programs/number.h"
#include "trace/settings.h"
#include "watch/capture/source.h"
#include "watch/core/options.h"
#include "watch/core/span.h"
#include "watch/core/stop.h"
#include "watch/core/text.h"
#include "watch/core/watched.h"
#include "watch/top/kept_log.h"
#include "watch/top/model.h"
#include "watch/top/replay_pace.h"
#include "watch/top/terminal.h"
#include "watch/top/view.h"

namespace {

// How long the end waits for a terminal that takes nothing, within the time that a stop has.
constexpr double kEndSeconds = 0.4;

// Intervals may come faster than anybody reads.
constexpr double kDrawSeconds = 0.04;

struct Top {
    // Of the command line.
    double speed = 1;

    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    TopModel* model PELMO_GUARDED_BY(lock) = nullptr;  // lives as long as the process
    Cond ended = {};                                   // the screen is gone; lives likewise
    bool hasEnded PELMO_GUARDED_BY(lock) = false;

    // Constant after the start.
    sigset_t signals = {};
    int signalDescriptor = -1;
    int wakeDescriptor = -1;  // something is to be drawn
    int paceDescriptor = -1;  // a key may have changed the pace
    Thread* thread = nullptr;

    // Of the screen's thread.
    Screen* screen = nullptr;
    double drawnSeconds = 0;

    // Of the thread that hands on Snapshots.
    ReplayPace pace;
};

constinit Top top;

// Options.

const char* storeSpeed(const char* value) {
    double speed = 0;
    const char* const fault = numberParse(value, speed);
    if (fault != nullptr) return fault;
    if (!(speed >= kTopLeastSpeed && speed <= kTopMostSpeed)) return "out of range";
    top.speed = speed;
    return nullptr;
}

constexpr FormOption kOptions[] = {
    {{"--speed", "FACTOR", "how many times its own pace a saved capture runs [1]"}, storeSpeed},
};

bool readsStandardInput() {
    return std::ranges::count(sourceSettings.files, "-") != 0;
}

const char* settle() {
    if (traceSettings.updateInterval == 0) return "takes an interval of a second or more";
    traceSettings.countSenders = true;
    if (terminalIsThere(readsStandardInput())) return nullptr;
    return readsStandardInput() ? "needs a terminal as its standard output, and for its keys"
                                : "needs a terminal as its standard input and output";
}

// Signals that the screen's thread takes: no thread that is started from here on gets them.
bool prepare() {
    sigemptyset(&top.signals);
    for (const int number : {SIGTSTP, SIGCONT, SIGWINCH}) {
        struct sigaction present = {};
        const bool isLeftAlone = number == SIGTSTP && sigaction(number, nullptr, &present) == 0 &&
                                 present.sa_handler == SIG_IGN;
        if (!isLeftAlone) sigaddset(&top.signals, number);
    }
    return pthread_sigmask(SIG_BLOCK, &top.signals, nullptr) == 0;
}

// Descriptors that are only ever full or empty.

void fillDescriptor(int descriptor) {
    (void)eventfd_write(descriptor, 1);
}

void clearDescriptor(int descriptor) {
    eventfd_t count = 0;
    (void)eventfd_read(descriptor, &count);
}

void wakeScreen() {
    fillDescriptor(top.wakeDescriptor);
}

// The screen's thread.

// Draws what the model has by now. The terminal is waited for without the lock.
void draw() {
    const ScreenSize size = terminalSize();
    {
        const LockGuard guard(top.lock);
        topArrange(*top.model, viewRoom(size));
        try {
            viewDraw(*top.model, size, *top.screen);
        } catch (const std::bad_alloc&) {
            return;
        }
    }
    terminalShow(*top.screen);
    top.drawnSeconds = clockSteadySeconds();
}

void takeNote() {
    char line[kKeptLineBytes];
    const std::string_view latest = keptLogLatest(line);
    if (latest.empty()) return;
    const LockGuard guard(top.lock);
    try {
        top.model->note = latest;
    } catch (const std::bad_alloc&) {
        top.model->ranOut = true;
    }
}

TopAnswer press(uint32_t key) {
    const size_t room = viewRoom(terminalSize());
    const LockGuard guard(top.lock);
    return topPress(*top.model, key, room);
}

void click() {
    const ScreenSpot* const spot = screenSpotAt(*top.screen, terminalClick());
    if (spot == nullptr) return;
    const LockGuard guard(top.lock);
    topClick(*top.model, *spot);
}

void readKeys() {
    uint32_t key = 0;
    while (terminalReadKey(&key)) {
        if (key == kKeyClick) {
            click();
            continue;
        }
        const TopAnswer answer = press(key);
        if (answer == TopAnswer::kQuit) stopAsk();
        if (answer == TopAnswer::kRedraw) terminalForget();
    }
    fillDescriptor(top.paceDescriptor);
}

// Stops as the shell expects it, with the terminal as it was.
void suspend() {
    terminalLeave();
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGTSTP);
    kill(getpid(), SIGTSTP);
    pthread_sigmask(SIG_UNBLOCK, &stopping, nullptr);  // here it stops
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    terminalReturn();
}

void followSignals() {
    signalfd_siginfo info;
    while (read(top.signalDescriptor, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGTSTP) suspend();
        if (info.ssi_signo == SIGCONT) terminalReturn();
    }
}

// Milliseconds until the next drawing, where one is due; else there is no hurry.
int waitMilliseconds(bool isDue) {
    if (!isDue) return -1;
    const double left = top.drawnSeconds + kDrawSeconds - clockSteadySeconds();
    return static_cast<int>(std::ceil(std::clamp(left, 0.0, kDrawSeconds) * 1000));
}

void runScreen() {
    enum { kKeys, kSignals, kWake, kStop, kCount };
    pollfd entries[kCount] = {};
    const int descriptors[kCount] = {terminalInput(), top.signalDescriptor, top.wakeDescriptor,
                                     stopDescriptor()};
    for (size_t at = 0; at < kCount; ++at) {
        entries[at] = {.fd = descriptors[at], .events = POLLIN, .revents = 0};
    }
    draw();
    for (bool isDue = false; !stopIsAsked();) {
        const int count = poll(entries, kCount, waitMilliseconds(isDue));
        if (count < 0 && errno != EINTR) return stopAsk();
        if (count < 0) continue;
        const bool isUrgent = (entries[kKeys].revents | entries[kSignals].revents) != 0;
        if (entries[kSignals].revents != 0) followSignals();
        if ((entries[kKeys].revents & POLLIN) != 0) readKeys();
        // The terminal is gone.
        if ((entries[kKeys].revents & (POLLHUP | POLLERR)) != 0) return stopAsk();
        if (entries[kWake].revents != 0) {
            clearDescriptor(top.wakeDescriptor);
            takeNote();
            isDue = true;
        }
        if (isUrgent || (isDue && waitMilliseconds(true) == 0)) {
            draw();
            isDue = false;
        }
    }
}

void screenThread(void*) {
    runScreen();
    terminalClose();
    keptLogEnd();
    const LockGuard guard(top.lock);
    top.hasEnded = true;
    Cond_Broadcast(&top.ended);
}

// The start and the end.

std::string sourceName() {
    if (readsStandardInput()) return "standard input";
    const char* const path = traceSettings.readFile;
    const std::string name =
        path != nullptr ? std::filesystem::path(path).filename() : traceSettings.interfaceName;
    char safe[kKeptLineBytes];
    return std::string(safeText(name, safe, sizeof safe));
}

bool makeModel() {
    try {
        top.screen = new Screen();
        const LockGuard guard(top.lock);
        top.model = new TopModel();
        topInit(*top.model);
        top.model->isLive = traceSettings.liveCapture;
        top.model->source = sourceName();
        top.model->speed = top.speed;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool openDescriptors() {
    top.signalDescriptor = signalfd(-1, &top.signals, SFD_NONBLOCK | SFD_CLOEXEC);
    top.wakeDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    top.paceDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    return top.signalDescriptor >= 0 && top.wakeDescriptor >= 0 && top.paceDescriptor >= 0;
}

bool refuse(const char* what) {
    logPrint("unable to start the screen: %s.", what);
    return false;
}

bool start() {
    const char* const wrong = terminalRefusal();
    if (wrong != nullptr) optionsRefuse(kTopForm.name, wrong);
    if (!makeModel() || Cond_Init(&top.ended) != kStatusSuccess) return refuse("out of memory");
    if (!openDescriptors()) return refuse(std::strerror(errno));
    if (!keptLogBegin(wakeScreen)) return refuse("out of memory");
    const bool isOpen = terminalOpen();
    top.screen->signs = terminalSigns();
    if (isOpen && Thread_Create(&top.thread, screenThread, nullptr) == kStatusSuccess) {
        stopSourceRead();  // a signal cuts nothing off: what is read is shown by then
        return true;
    }
    terminalClose();
    keptLogEnd();
    return refuse(isOpen ? "no thread" : "the terminal can't be used");
}

void followKeys(double now) {
    double speed = 1;
    bool isPaused = false;
    {
        const LockGuard guard(top.lock);
        speed = top.model->speed;
        isPaused = top.model->isHeld;
    }
    paceSet(top.pace, now, speed, isPaused);
}

// Returns when the interval is due, or the end is asked for.
void awaitPace(double captureSeconds) {
    pollfd entries[] = {{.fd = stopDescriptor(), .events = POLLIN, .revents = 0},
                        {.fd = top.paceDescriptor, .events = POLLIN, .revents = 0}};
    while (!stopIsAsked()) {
        const double now = clockSteadySeconds();
        followKeys(now);
        const double wait = paceWait(top.pace, now, captureSeconds);
        if (wait <= 0) break;
        constexpr double kMostSeconds = 3600;
        const double milliseconds = std::ceil(std::min(wait, kMostSeconds) * 1000);
        if (poll(entries, 2, static_cast<int>(milliseconds)) > 0) {
            clearDescriptor(top.paceDescriptor);
        }
    }
    paceShow(top.pace, clockSteadySeconds(), captureSeconds);
}

bool snapshot(SnapHeader& snapshot) {
    if (!traceSettings.liveCapture) awaitPace(secondsOf(snapshot.thisTime));
    {
        const LockGuard guard(top.lock);
        topTake(*top.model, snapshot);
    }
    wakeScreen();
    return true;
}

void sourceChanged() {
    const WatchedState state = watchedState();
    {
        const LockGuard guard(top.lock);
        try {
            topSetSource(*top.model, state);
        } catch (const std::bad_alloc&) {
            top.model->ranOut = true;
        }
    }
    wakeScreen();
}

// False where the screen didn't end in time: the terminal takes nothing.
bool awaitScreensEnd() {
    const double deadline = clockSteadySeconds() + kEndSeconds;
    const LockGuard guard(top.lock);
    while (!top.hasEnded) {
        const double left = deadline - clockSteadySeconds();
        if (left <= 0) return false;
        (void)Cond_TimedWait(&top.ended, &top.lock, left);
    }
    return true;
}

bool end(bool) {
    if (awaitScreensEnd()) {
        (void)Thread_Join(top.thread);
    } else {
        terminalRescue();
    }
    (void)Thread_Destroy(top.thread);
    return true;
}

}  // namespace

const Form kTopForm = {
    .name = "top",
    .summary = "A full screen in the terminal",
    .options = kOptions,
    .settle = settle,
    .prepare = prepare,
    .start = start,
    .snapshot = snapshot,
    .sourceChanged = sourceChanged,
    .end = end,
    .intervalSeconds = 2,
    .showsProgress = false,
    .staysOpen = true,
};
