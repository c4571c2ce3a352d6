// Over the intra-process transport the other end is made here as well, on a queue that a thread of
// its own dispatches. Nothing there makes a sender wait, so that it has to look at the queue
// itself.

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <thread>

#include "bus/asking.h"
#include "bus/commands.h"
#include "bus/common.h"
#include "bus/composer.h"
#include "bus/connection.h"
#include "bus/measure.h"
#include "bus/output.h"
#include "bus/pump.h"
#include "bus/sender.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr const char* kBenchSubject = "PELMOBUS.BENCH";
constexpr double kBenchSeconds = 5;
constexpr double kAnswerSeconds = 10;
constexpr size_t kTogether = 64;
constexpr uint32_t kMostWaiting = 20'000;  // messages in a queue of this process
constexpr int64_t kLookTime = kMillisecond / 5;
constexpr int64_t kDrainTime = 10 * kSecond;

// The settings with what a benchmark takes for granted.
BusSettings withDefaults(BusSettings settings, bool isEndless) {
    if (settings.subjects.empty()) settings.subjects.push_back(kBenchSubject);
    if (!settings.count && !settings.seconds && !isEndless) settings.seconds = kBenchSeconds;
    return settings;
}

int64_t endOf(const BusSettings& settings, int64_t now) {
    return settings.seconds ? steadyAfter(now, *settings.seconds) : kNever;
}

// A queue with a thread that dispatches it, for the other end within the process.
struct Side {
    uint32_t queue = kNoId;
    uint32_t event = kNoId;
    uint32_t dispatcher = kNoId;

    Side() = default;
    ~Side() {
        if (event != kNoId) pelmoEvent_DestroyEx(event, nullptr);
        if (dispatcher != kNoId) pelmoDispatcher_Destroy(dispatcher);
        if (queue != kNoId) pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    }
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;
};

// `listen` makes the event. Failures are reported.
template <typename Listen>
bool sideOpen(Side& side, Listen listen) {
    pelmoStatus status = pelmoQueue_Create(&side.queue);
    if (status == kStatusSuccess) status = listen(&side.event, side.queue);
    if (status == kStatusSuccess) {
        status = pelmoDispatcher_CreateEx(&side.dispatcher, side.queue, -1);
    }
    if (status != kStatusSuccess) complain("the other end", status);
    return status == kStatusSuccess;
}

auto tallyListener(uint32_t transport, const char* subject) {
    return [=](uint32_t* out, uint32_t queue) {
        return pelmoEvent_CreateVectorListener(out, queue, tallyTake, transport, subject, nullptr);
    };
}

uint32_t waitingIn(uint32_t queue) {
    uint32_t count = 0;
    const bool isKnown = queue != kNoId && pelmoQueue_GetCount(queue, &count) == kStatusSuccess;
    return isKnown ? count : 0;
}

// Results

void printRate(const char* what, uint64_t messages, uint64_t bytes, int64_t elapsed) {
    const double seconds = std::max(steadySeconds(elapsed), 1e-9);
    std::printf("%s: %" PRIu64 " messages, %" PRIu64
                " bytes in %.3f s: %.0f messages/s, %.0f bytes/s\n",
                what, messages, bytes, seconds, static_cast<double>(messages) / seconds,
                static_cast<double>(bytes) / seconds);
}

void printTally() {
    const int64_t elapsed = benchTally.last.load() - benchTally.first.load();
    printRate("received", benchTally.messages.load(), benchTally.bytes.load(), elapsed);
}

void printLatencies(const Histogram& latencies) {
    const auto micros = [](uint64_t value) { return static_cast<double>(value) / 1000; };
    if (latencies.count == 0) return;
    std::printf("latency: min %.1f us, median %.1f us, 99%% %.1f us, 99.9%% %.1f us, max %.1f us\n",
                micros(latencies.least), micros(histogramAt(latencies, 0.5)),
                micros(histogramAt(latencies, 0.99)), micros(histogramAt(latencies, 0.999)),
                micros(latencies.most));
}

// Only the listener to the answers is reached on the direct road.
void printRoad(uint32_t transport, uint64_t answers) {
    pelmoDirectTraffic traffic = {};
    if (pelmoTransport_GetDirectTraffic(transport, &traffic) != kStatusSuccess) return;
    if (traffic.port == 0) {
        std::printf("road: daemon\n");
        return;
    }
    const uint64_t straight = std::min(traffic.messagesReceived, answers);
    std::printf("road: direct, %" PRIu64 " of %" PRIu64 " answers on UDP port %u; %" PRIu64
                " packets out, %" PRIu64 " again; %" PRIu64 " in\n",
                straight, answers, unsigned{traffic.port}, traffic.packetsSent,
                traffic.packetsResent, traffic.packetsReceived);
}

ExitStatus endPrinting(ExitStatus ended) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return ended;
    complain("standard output", kStatusIoFailed);
    return kExitFailed;
}

// Sending

struct Load {
    const BusSettings& settings;
    Composer composer;
    Sender sender;
    uint32_t queue = kNoId;  // that mustn't fill, within the process
    uint64_t bytes = 0;
    int64_t elapsed = 0;
};

Load loadMake(const BusSettings& settings, uint32_t transport, uint32_t queue) {
    const uint64_t most = settings.count.value_or(UINT64_MAX);
    return {settings, composerOpen(settings, most), Sender{transport}, queue};
}

// False ends it: by a signal, or the time.
bool loadWait(const Load& load, const Pace& pace, int64_t until) {
    if (steadyNow() >= until) return false;
    while (waitingIn(load.queue) > kMostWaiting) {
        if (stopWait(-1, 0, steadyNow() + kLookTime) == StopWait::kStop) return false;
    }
    return stopWait(-1, 0, std::min(paceDue(pace), until)) != StopWait::kStop;
}

// The same messages again and again, until `isOver`, a signal or the end of what was asked for.
template <typename IsOver>
pelmoStatus loadRun(Load& load, int64_t until, IsOver isOver) {
    std::array<ComposerSlot, kTogether> slots;
    std::array<pelmoMsg*, kTogether> messages{};
    const int64_t start = steadyNow();
    Pace pace = paceStart(load.settings.rate, start);
    const size_t most = load.settings.rate > 0 ? 1 : kTogether;
    pelmoStatus status = kStatusSuccess;
    while (status == kStatusSuccess && !isOver() && loadWait(load, pace, until)) {
        size_t count = 0;
        uint32_t sizeBytes = 0;
        while (count < most &&
               composerNext(load.composer, slots[count], false) == ComposeResult::kMade) {
            messages[count] = slots[count].msg.get();
            ++count;
        }
        if (count == 0) break;
        status = pelmoMsg_GetByteSize(messages[0], &sizeBytes);
        if (status == kStatusSuccess) {
            status = senderSendTogether(load.sender, {messages.data(), count});
        }
        load.bytes = load.sender.sent * sizeBytes;
        paceNext(pace, steadyNow());
    }
    load.elapsed = steadyNow() - start;
    return status;
}

void drain(const Side& side) {
    const int64_t until = steadyNow() + kDrainTime;
    while (waitingIn(side.queue) != 0 && steadyNow() < until) {
        if (stopWait(-1, 0, steadyNow() + kLookTime) == StopWait::kStop) return;
    }
}

ExitStatus loadEnd(const Load& load, pelmoStatus status) {
    if (status != kStatusSuccess) {
        complain(std::string("send ") + load.settings.subjects[0], status);
        return kExitFailed;
    }
    const bool isShort = load.settings.count && load.sender.sent < *load.settings.count;
    return isShort && !stopRequested() ? kExitUnanswered : kExitDone;
}

// Asking

void answerAsIs(uint32_t, pelmoMsg* request, void*) {
    pelmoMsg* answer = nullptr;
    if (pelmoMsg_CreateCopy(request, &answer) != kStatusSuccess) return;
    // An answer that doesn't leave is seen by who waits for it.
    static_cast<void>(pelmoTransport_SendReply(kIntraProcessTransportId, answer, request));
    pelmoMsg_Destroy(answer);
}

pelmoStatus askAll(Pump& pump, Load& load, int64_t until, Histogram& latencies) {
    ComposerSlot slot;
    const int64_t start = steadyNow();
    pelmoStatus status = kStatusSuccess;
    while (status == kStatusSuccess && !stopRequested() && steadyNow() < until &&
           composerNext(load.composer, slot, false) == ComposeResult::kMade) {
        OwnedMessage answer;
        const int64_t asked = steadyNow();
        status =
            askFor(pump, load.sender, slot.msg.get(), steadyAfter(asked, kAnswerSeconds), answer);
        if (status == kStatusSuccess) {
            histogramAdd(latencies, static_cast<uint64_t>(steadyNow() - asked));
        }
    }
    load.elapsed = steadyNow() - start;
    return status == kStatusInterrupted ? kStatusSuccess : status;
}

ExitStatus askEnd(const Load& load, const Histogram& latencies, pelmoStatus status) {
    if (status != kStatusSuccess) {
        complain(std::string("request ") + load.settings.subjects[0], status);
        return status == kStatusTimeout ? kExitUnanswered : kExitFailed;
    }
    const bool isShort = load.settings.count && latencies.count < *load.settings.count;
    return isShort && !stopRequested() ? kExitUnanswered : kExitDone;
}

}  // namespace

ExitStatus runBenchSend(const BusSettings& given) {
    const BusSettings settings = withDefaults(given, false);
    Connection connection;
    const ExitStatus made = connectionOpen(connection, settings);
    if (made != kExitDone) return made;
    Side side;
    const auto listen = tallyListener(connection.transport, settings.subjects[0]);
    if (settings.local && !sideOpen(side, listen)) return kExitFailed;

    Load load = loadMake(settings, connection.transport, side.queue);
    SendWatch watch(connection.transport);
    pelmoStatus status =
        loadRun(load, endOf(settings, steadyNow()), [] { return stopRequested(); });
    if (status == kStatusInterrupted) status = kStatusSuccess;
    drain(side);
    printRate("sent", load.sender.sent, load.bytes, load.elapsed);
    if (settings.local) printTally();
    watch.stop();
    const std::string what = std::string("send ") + settings.subjects[0];
    const bool allLeft = senderEnd(load.sender, connection, what);
    const ExitStatus ended = loadEnd(load, status);
    // A signal ends a benchmark at any point.
    return endPrinting(allLeft || stopRequested() ? ended : kExitFailed);
}

ExitStatus runBenchRequest(const BusSettings& given) {
    const BusSettings settings = withDefaults(given, false);
    Connection connection;
    const ExitStatus made = connectionOpen(connection, settings);
    if (made != kExitDone) return made;
    Side side;
    const auto listen = [&](uint32_t* out, uint32_t queue) {
        return pelmoEvent_CreateListener(out, queue, answerAsIs, connection.transport,
                                         settings.subjects[0], nullptr);
    };
    if (settings.local && !sideOpen(side, listen)) return kExitFailed;
    Output output;
    Pump pump;
    if (!pumpOpen(pump, &output)) return kExitFailed;

    Load load = loadMake(settings, connection.transport, kNoId);
    Histogram latencies;
    const pelmoStatus status = askAll(pump, load, endOf(settings, steadyNow()), latencies);
    const double seconds = std::max(steadySeconds(load.elapsed), 1e-9);
    std::printf("answered: %" PRIu64 " requests in %.3f s: %.0f requests/s\n", latencies.count,
                seconds, static_cast<double>(latencies.count) / seconds);
    printLatencies(latencies);
    printRoad(connection.transport, latencies.count);
    return endPrinting(askEnd(load, latencies, status));
}

ExitStatus runBenchListen(const BusSettings& given) {
    const BusSettings settings = withDefaults(given, !given.local);
    Connection connection;
    const ExitStatus made = connectionOpen(connection, settings);
    if (made != kExitDone) return made;
    Output output;
    Pump pump;
    if (!pumpOpen(pump, &output)) return kExitFailed;
    benchTally.most = settings.count.value_or(UINT64_MAX);
    benchTally.done = benchTally.most == 0;
    const int64_t until = endOf(settings, steadyNow());
    pump.events.push_back(kNoId);
    const auto listen = tallyListener(connection.transport, settings.subjects[0]);
    const pelmoStatus status = listen(&pump.events.back(), pump.queue);
    if (status != kStatusSuccess) {
        complain(std::string("listen ") + settings.subjects[0], status);
        return kExitFailed;
    }
    pumpAnnounce(pump, connection.transport, settings.subjects);

    std::atomic<bool> isOver = false;
    Load load = loadMake(settings, connection.transport, pump.queue);
    load.composer.most = UINT64_MAX;
    std::thread other;
    if (settings.local) {
        other = std::thread(
            [&] { static_cast<void>(loadRun(load, until, [&] { return isOver.load(); })); });
    }
    const PumpEnd end = pumpRun(pump, benchTally.done, until);
    isOver = true;
    if (other.joinable()) other.join();
    printTally();
    const bool isShort = end == PumpEnd::kTime && settings.count;
    const ExitStatus ended = isShort ? kExitUnanswered : kExitDone;
    return endPrinting(end == PumpEnd::kFailed ? kExitFailed : ended);
}
