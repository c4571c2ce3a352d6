#include "watch/serve/serve.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "programs/number.h"
#include "trace/counts/snapshot_storage.h"
#include "trace/counts/statistics.h"
#include "trace/run/start_steps.h"
#include "trace/settings.h"
#include "watch/core/span.h"
#include "watch/core/stop.h"
#include "watch/core/watched.h"
#include "watch/json/json_parts.h"
#include "watch/json/json_source.h"
#include "watch/json/json_writer.h"
#include "watch/serve/history.h"
#include "watch/serve/history_json.h"
#include "watch/serve/metrics.h"
#include "watch/serve/series.h"
#include "watch/serve/server.h"
#include "watch/web/assets.h"

namespace {

constexpr const char* kDefaultListen = "127.0.0.1:9471";
constexpr uint32_t kSeriesMost = 100'000;
constexpr uint32_t kSeriesLeast = 1000;
constexpr uint32_t kClientsMost = 800;  // below a process's usual 1,024 descriptors
constexpr double kSweepSeconds = 1;
constexpr double kLagKeptSeconds = 120;
constexpr std::string_view kEventBegin = "event: snapshot\ndata: ";

struct ServeForm {
    // Of the command line; constant from the start on.
    ServerRules rules;
    SeriesRules seriesRules = {
        .hosts = false, .subjects = nullptr, .mostSeries = 10'000, .expireIntervals = 360};
    std::vector<const char*> hostNames;
    bool hasPace = false;

    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    SeriesTable series PELMO_GUARDED_BY(lock) = {};
    History history PELMO_GUARDED_BY(lock) = {};
    double lagSeconds PELMO_GUARDED_BY(lock) = 0;
    double lagNotedSeconds PELMO_GUARDED_BY(lock) = 0;  // of the steady clock
    double snapshotTimeSeconds PELMO_GUARDED_BY(lock) = 0;

    // The last Snapshot, taken over from those that count: its text is written when a client wants
    // it. Then the block waits to be given back for another.
    SnapshotBlock newest PELMO_GUARDED_BY(lock) = {};
    SnapshotBlock spare PELMO_GUARDED_BY(lock) = {};

    // Of the server's thread.
    size_t eventBytes = 0;  // of the last
    bool lacksMemory = false;

    // Of the thread that hands on Snapshots.
    double paceSeconds = 0;          // of the steady clock, at the first
    double paceSnapshotSeconds = 0;  // of the packets, there
    bool hasBegun = false;
};

ServeForm serve;

// What a live run waits between two Snapshots; a page divides by it.
double intervalSeconds() {
    constexpr double kLeastSeconds = 0.001;
    return std::max<double>(traceSettings.updateInterval, kLeastSeconds);
}

// The command line.

const char* storeListen(const char* value) {
    return listenAddressParse(value, &serve.rules.listen);
}

const char* storeHosts(const char*) {
    serve.seriesRules.hosts = true;
    return nullptr;
}

const char* storeSubjects(const char* value) {
    SubjectList*& list = serve.seriesRules.subjects;
    if (list == nullptr) list = sublistCreate();
    uint8_t packed[kSubjectMaxBytes];
    if (subjectFromText(packed, sizeof packed, value) < 0 || subjectElementCount(packed) == 0) {
        return "not a subject, with or without wildcards";
    }
    return sublistAdd(list, packed, &serve, nullptr) ? nullptr : "out of memory";
}

const char* storeExpire(const char* value) {
    return numberParse(value, 1, UINT32_MAX - 1, serve.seriesRules.expireIntervals);
}

const char* storeMostSeries(const char* value) {
    return numberParse(value, kSeriesLeast, kSeriesMost, serve.seriesRules.mostSeries);
}

const char* storeMostClients(const char* value) {
    return numberParse(value, 2, kClientsMost, serve.rules.mostClients);
}

const char* storeHostName(const char* value) {
    if (std::string_view(value).empty() ||
        std::string_view(value).find(':') != std::string_view::npos) {
        return "not a host name without a port";
    }
    serve.hostNames.push_back(value);
    return nullptr;
}

const char* storeSenders(const char*) {
    traceSettings.countSenders = true;
    return nullptr;
}

const char* storePace(const char*) {
    serve.hasPace = true;
    return nullptr;
}

constexpr FormOption kOptions[] = {
    {{"--listen", "ADDRESS:PORT", "where to listen [127.0.0.1:9471]"}, storeListen},
    {{"--host", "NAME", "answer to this name too; repeatable"}, storeHostName},
    {{"--hosts", nullptr, "metrics of each host too"}, storeHosts},
    {{"--subjects", "PATTERN", "metrics of these subjects too; repeatable"}, storeSubjects},
    {{"--expire", "INTERVALS", "remove metrics after so long without a change [360]"}, storeExpire},
    {{"--max-series", "COUNT", "most metrics, each set of labels counted [10000]"},
     storeMostSeries},
    {{"--max-clients", "COUNT", "most connections [200]"}, storeMostClients},
    {{"--senders", nullptr, "count and show the senders of each subject"}, storeSenders},
    {{"--pace", nullptr, "read a saved capture at its own pace"}, storePace},
};

// Answers, on the server's thread.

// Without memory for the text of an interval clients don't see it; the next may be seen again.
void reportLack(bool lacks) {
    if (!std::exchange(serve.lacksMemory, lacks) && lacks) {
        logPrint("out of memory for the text of a snapshot: pages and /snapshot.json lag behind.");
    }
}

bool writeEventOf(const SnapHeader& snapshot, JsonBuffer& out, EventPlaces& places) {
    (void)out.reserve(serve.eventBytes + serve.eventBytes / 8);  // mostly it grows once
    out.append(kEventBegin);
    jsonAppendObject(out, snapshot, nullptr);
    out.append("\n\n");
    if (out.failed) return false;
    serve.eventBytes = out.usedBytes;
    places = {kEventBegin.size(), out.usedBytes - kEventBegin.size() - 1};
    return true;
}

bool writeEvent(JsonBuffer& out, EventPlaces& places) {
    SnapshotBlock block{};
    {
        const LockGuard guard(serve.lock);
        block = std::exchange(serve.newest, {});
    }
    if (block.bytes == nullptr) return false;
    const bool written = writeEventOf(*static_cast<const SnapHeader*>(block.bytes), out, places);
    reportLack(!written);
    {
        const LockGuard guard(serve.lock);
        std::swap(serve.spare, block);
    }
    std::free(block.bytes);
    return written;
}

void fillHealth(ServeHealth& health) {
    const ServerCounts counts = serverCounts();
    const ProcessUsage usage = processUsage();
    health.version = PELMO_TREE_VERSION;
    health.source =
        traceSettings.liveCapture ? traceSettings.interfaceName : traceSettings.readFile;
    health.intervalSeconds = intervalSeconds();
    health.isCapturing = watchStateIsWell(watchedState().state);
    health.clients = counts.clients;
    health.eventClients = counts.eventClients;
    health.cutOffClients = counts.cutOffClients;
    health.cpuSeconds = usage.cpuSeconds;
    health.startTimeSeconds = usage.startTimeSeconds;
    health.residentBytes = usage.residentBytes;
    health.virtualBytes = usage.virtualBytes;
    health.openDescriptors = usage.openDescriptors;
    health.mostDescriptors = usage.mostDescriptors;
}

bool writeMetrics(JsonBuffer& out) {
    MetricFamilies families;
    ServeHealth health{};
    fillHealth(health);
    {
        const LockGuard guard(serve.lock);
        if (!metricsOfSeries(serve.series, families)) return false;
        health.lagSeconds = serve.lagSeconds;
        health.snapshotTimeSeconds = serve.snapshotTimeSeconds;
    }
    return metricsOfHealth(health, families) && metricsText(families, out);
}

bool writeHistoryOfTotals(JsonBuffer& out) {
    const LockGuard guard(serve.lock);
    historyAppendTotals(out, serve.history, intervalSeconds());
    return !out.failed;
}

bool writeHistoryOfRow(const RowKey& row, JsonBuffer& out) {
    const LockGuard guard(serve.lock);
    historyAppendRow(out, serve.history, row, intervalSeconds());
    return !out.failed;
}

bool writeSource(JsonBuffer& out) {
    jsonAppendSource(out, intervalSeconds(), serve.hasPace);
    out.Put('\n');
    return !out.failed;
}

uint64_t intervalsCounted() {
    const LockGuard guard(serve.lock);
    return serve.series.intervals;
}

bool writeHealth(JsonBuffer& out, bool& isWell) {
    const WatchedState state = watchedState();
    isWell = watchStateIsWell(state.state);
    JsonLevels levels;
    JsonWriter writer(out, levels);
    writer.StartObject();
    jsonPlain(writer, "status", isWell ? "ok" : "failed");
    jsonPlain(writer, "source", watchStateKey(state.state));
    jsonSafe(writer, "words", watchedWords(state));
    jsonMember(writer, "intervals", intervalsCounted());
    writer.EndObject();
    out.Put('\n');
    return !out.failed;
}

// The run.

const char* settle() {
    ServerRules& rules = serve.rules;
    if (rules.listen.sizeBytes == 0) (void)listenAddressParse(kDefaultListen, &rules.listen);
    if (rules.mostClients == 0) rules.mostClients = 200;
    rules.routes = {.furtherNames = serve.hostNames, .assets = webAssets()};
    rules.answers = {writeSource,          writeEvent,        writeMetrics,
                     writeHistoryOfTotals, writeHistoryOfRow, writeHealth};
    if (serve.hasPace && traceSettings.liveCapture) return "takes --pace with -r only";
    return nullptr;
}

bool prepare() {
    processUsageStart();
    return serverBind(serve.rules);
}

void sourceChanged() {
    serverPublish(StreamEvent::kSource);
}

bool start() {
    {
        const LockGuard guard(serve.lock);
        serve.series.rules = serve.seriesRules;
    }
    sourceChanged();  // a first one
    return serverStart() && startTimer<serverSweep>(kSweepSeconds) == kStatusSuccess;
}

// Waits until as much time has passed as did for the packets.
void keepPace(const SnapHeader& snapshot) {
    const double now = clockSteadySeconds();
    if (!std::exchange(serve.hasBegun, true)) {
        serve.paceSeconds = now;
        serve.paceSnapshotSeconds = secondsOf(snapshot.prevTime);
    }
    const double due = serve.paceSeconds + secondsOf(snapshot.thisTime) - serve.paceSnapshotSeconds;
    if (due > now) (void)stopSleep(due - now);
}

// The longest stays for a while: after a stall the next interval is in time again, and a scrape
// each minute would never show it.
void noteLag(double seconds) PELMO_REQUIRES(serve.lock) {
    const double now = clockSteadySeconds();
    if (seconds < serve.lagSeconds && now - serve.lagNotedSeconds < kLagKeptSeconds) return;
    serve.lagSeconds = seconds;
    serve.lagNotedSeconds = now;
}

void addUp(const SnapHeader& snapshot) {
    const double elapsed = secondsOf(snapshot.span.elapsedNanoseconds);
    const LockGuard guard(serve.lock);
    seriesAdd(serve.series, snapshot);
    historyAdd(serve.history, snapshot);
    serve.snapshotTimeSeconds = secondsOf(snapshot.thisTime);
    if (traceSettings.liveCapture) noteLag(std::max(0.0, elapsed - intervalSeconds()));
}

// Exchanges the block with the Snapshot for one that is no longer needed.
void keep() {
    SnapshotBlock unused{};
    {
        const LockGuard guard(serve.lock);
        SnapshotBlock& from = serve.newest.bytes != nullptr ? serve.newest : serve.spare;
        unused = std::exchange(from, {});
    }
    SnapshotBlock block{};
    {
        const LockGuard guard(statsLock);
        block = snapshotStorageExchange(unused);
    }
    const LockGuard guard(serve.lock);
    serve.newest = block;
}

bool snapshot(SnapHeader& snapshot) {
    if (serve.hasPace) keepPace(snapshot);
    addUp(snapshot);
    keep();
    serverPublish(StreamEvent::kSnapshot);
    return true;
}

bool end(bool) {
    serverStop();
    const LockGuard guard(serve.lock);
    seriesFree(serve.series);
    historyFree(serve.history);
    std::free(serve.newest.bytes);
    std::free(serve.spare.bytes);
    sublistDestroy(serve.seriesRules.subjects);
    return true;
}

}  // namespace

const Form kServeForm = {
    .name = "serve",
    .summary = "The bus over HTTP: metrics for Prometheus, JSON, and a live page",
    .options = kOptions,
    .settle = settle,
    .prepare = prepare,
    .start = start,
    .snapshot = snapshot,
    .sourceChanged = sourceChanged,
    .end = end,
    .showsProgress = true,
    .staysOpen = true,
};
