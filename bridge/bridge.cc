#include "bridge/bridge.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "programs/steady_time.h"
#include "programs/stop.h"
#include "programs/text.h"

namespace {

constexpr int kFailed = 1;
constexpr int64_t kConnectPause = kSecond;
constexpr int64_t kStatusTime = 60 * kSecond;
constexpr int64_t kWatchTime = kSecond / 4;
constexpr int64_t kMostFaultPause = 60 * kSecond;

struct CountRow {
    const char* name;
    uint64_t BridgeCounts::*member;
};

constexpr CountRow kCountRows[] = {
    {"to_nats", &BridgeCounts::toNats},
    {"to_bus", &BridgeCounts::toBus},
    {"loops", &BridgeCounts::loops},
    {"bad_subjects", &BridgeCounts::badSubjects},
    {"bad_bodies", &BridgeCounts::badBodies},
    {"too_large", &BridgeCounts::tooLarge},
    {"requests", &BridgeCounts::requests},
    {"requests_late", &BridgeCounts::requestsLate},
    {"bus_refused", &BridgeCounts::busRefused},
    {"nats_dropped", &BridgeCounts::natsDropped},
    {"nats_breaks", &BridgeCounts::natsBreaks},
    {"bus_breaks", &BridgeCounts::busBreaks},
};

// A number under a name, as the log, NATS and the bus get it.
struct NamedCount {
    const char* name;
    uint64_t value;
};

std::vector<NamedCount> namedCounts(const Bridge& bridge) {
    std::vector<NamedCount> named;
    for (const CountRow& row : kCountRows) {
        named.push_back({row.name, bridge.counts.*row.member});
    }
    for (const Outbox* outbox : {&bridge.kept, &bridge.plain}) {
        const bool isKept = outbox == &bridge.kept;
        named.push_back({isKept ? "stream_acknowledged" : "plain_sent", outbox->acknowledged});
        named.push_back({isKept ? "stream_repeated" : "plain_repeated", outbox->repeated});
        named.push_back({isKept ? "stream_refused" : "plain_refused", outbox->refused});
        named.push_back({isKept ? "stream_dropped" : "plain_dropped", outbox->dropped});
        named.push_back({isKept ? "stream_waiting" : "plain_waiting", outbox->items.size()});
    }
    return named;
}

std::string countsText(const std::vector<NamedCount>& named) {
    std::string text;
    for (const NamedCount& count : named) {
        if (count.value != 0)
            text += (text.empty() ? "" : ", ") + std::string(count.name) + " " +
                    std::to_string(count.value);
    }
    return text.empty() ? "nothing crossed" : text;
}

std::string countsJson(const Bridge& bridge, const std::vector<NamedCount>& named) {
    std::string text =
        "{\"name\":\"" + bridge.options.name + "\",\"group\":\"" + bridge.options.group + "\"";
    text += ",\"leads\":" + std::string(bridge.group.leads ? "true" : "false");
    for (const NamedCount& count : named) {
        text += ",\"" + std::string(count.name) + "\":" + std::to_string(count.value);
    }
    return text + "}";
}

void sendStatusToBus(Bridge& bridge, const std::vector<NamedCount>& named) {
    const OwnedMessage message = messageMake();
    if (message == nullptr) return;
    pelmoStatus status = pelmoMsg_SetSendSubject(
        message.get(), ("PELMOBRIDGE.STATUS." + bridge.options.name).c_str());
    if (status == kStatusSuccess)
        status = pelmoMsg_AddString(message.get(), "group", bridge.options.group.c_str(), 0);
    for (const NamedCount& count : named) {
        if (status == kStatusSuccess)
            status = pelmoMsg_AddU64(message.get(), count.name, count.value, 0);
    }
    if (status == kStatusSuccess) (void)pelmoTransport_Send(bridge.bus, message.get());
}

void report(Bridge& bridge) {
    std::vector<NamedCount> named;
    std::string json;
    {
        const std::lock_guard guard(bridge.lock);
        named = namedCounts(bridge);
        json = countsJson(bridge, named);
    }
    bridgeSay(countsText(named));
    (void)natsConnection_PublishString(bridge.nats.connection,
                                       ("pelmobridge.status." + bridge.options.name).c_str(),
                                       json.c_str());
    sendStatusToBus(bridge, named);
}

// What NATS reports

void onNatsUp(void* closure) {
    auto& bridge = *static_cast<Bridge*>(closure);
    {
        const std::lock_guard guard(bridge.lock);
        bridge.natsIsUp = true;
        groupConnected(bridge.group, true, steadyNow());
    }
    bridge.wake.notify_one();
    bridgeSay("connected to " + natsLinkServer(bridge.nats));
}

void onNatsDown(void* closure, const char* reason) {
    auto& bridge = *static_cast<Bridge*>(closure);
    {
        const std::lock_guard guard(bridge.lock);
        if (bridge.isEnding) return;
        bridge.natsIsUp = false;
        ++bridge.counts.natsBreaks;
        outboxBreak(bridge.kept);
        groupConnected(bridge.group, false, steadyNow());
    }
    bridgeSay(std::string("NATS is away: ") + reason);
}

void onNatsEnded(void* closure, const char* reason) {
    auto& bridge = *static_cast<Bridge*>(closure);
    const std::lock_guard guard(bridge.lock);
    bridge.natsIsUp = false;
    bridge.natsEnd = reason;
}

void onNatsAnswered(void* closure, uint64_t number, natsMsg* answer) {
    fromBusAnswered(*static_cast<Bridge*>(closure), number, answer);
}

void onNatsError(void* closure, const char* text) {
    auto& bridge = *static_cast<Bridge*>(closure);
    uint64_t dropped = 0;
    for (const auto& side : bridge.sides) {
        int64_t ofSide = 0;
        if (side->subscription != nullptr &&
            natsSubscription_GetDropped(side->subscription, &ofSide) == NATS_OK) {
            dropped += static_cast<uint64_t>(ofSide);
        }
    }
    {
        const std::lock_guard guard(bridge.lock);
        bridge.counts.natsDropped = std::max(bridge.counts.natsDropped, dropped);
    }
    bridgeSayFault(dropped, text, "NATS");
}

void onBeat(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    auto& bridge = *static_cast<Bridge*>(closure);
    const std::string text(natsMsg_GetData(message),
                           static_cast<size_t>(natsMsg_GetDataLength(message)));
    natsMsg_Destroy(message);
    char name[kMostGroupBytes + 1];
    char role[8];
    GroupBeat beat;
    constexpr const char* kBeatForm = "%32s %7s %" SCNd64 " %" SCNd64;
    const int read =
        std::sscanf(text.c_str(), kBeatForm, name, role, &beat.oldest, &beat.listening);
    if (read != 4 || !groupNameIsGood(name)) return;
    beat.name = name;
    beat.leads = std::string_view(role) == "leads";
    const std::lock_guard guard(bridge.lock);
    const GroupTurn turn = groupHear(bridge.group, beat, steadyNow());
    if (turn == GroupTurn::kStandBy) bridgeSay("stands by in the group " + bridge.options.group);
}

// What the bus reports

void onBusBreak(uint32_t, pelmoMsg*, void* closure) {
    auto& bridge = *static_cast<Bridge*>(closure);
    {
        const std::lock_guard guard(bridge.lock);
        ++bridge.counts.busBreaks;
    }
    bridgeSay("the bus is away");
}

void onBusReturn(uint32_t, pelmoMsg* message, void*) {
    double seconds = 0;
    if (pelmoMsg_GetF64(message, "seconds", &seconds, 0) != kStatusSuccess) seconds = 0;
    char text[80];
    std::snprintf(text, sizeof text,
                  "the bus is back after %.1f s, in which its messages were missed", seconds);
    bridgeSay(text);
}

bool connectBus(Bridge& bridge) {
    const auto text = [](const std::string& from) { return from.empty() ? nullptr : from.c_str(); };
    const BridgeOptions& options = bridge.options;
    for (uint64_t tries = 1;; ++tries) {
        const pelmoStatus status = pelmoTransport_CreateNetwork(
            &bridge.bus, text(options.service), text(options.network), text(options.daemon));
        if (status == kStatusSuccess) return true;
        const bool mayCome = status == kStatusDaemonNotConnected;
        bridgeSayFault(mayCome ? tries : 0, "no connection to the bus",
                       pelmoStatus_GetText(status));
        if (!mayCome || stopWait(-1, 0, steadyNow() + kConnectPause) == StopWait::kStop)
            return false;
    }
}

pelmoStatus openBus(Bridge& bridge) {
    uint32_t listener = 0;
    pelmoStatus status = pelmoTransport_SetEcho(bridge.bus, false);
    if (status == kStatusSuccess) status = pelmoQueue_Create(&bridge.queue);
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&listener, bridge.queue, onBusBreak, bridge.bus,
                                           "_PM.WARN.SYSTEM.PMD.DISCONNECTED", &bridge);
    }
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&listener, bridge.queue, onBusReturn, bridge.bus,
                                           "_PM.INFO.SYSTEM.PMD.RECONNECTED", &bridge);
    }
    if (status == kStatusSuccess) status = fromBusOpen(bridge);
    if (status == kStatusSuccess)
        status = pelmoDispatcher_CreateEx(&bridge.dispatcher, bridge.queue, -1);
    return status;
}

// False where one can't be had yet.
bool openStreams(Bridge& bridge) {
    std::map<std::string, std::vector<std::string>> streams;
    for (const BridgeRoute& route : bridge.options.fromBus) {
        std::string onBus, onNats;
        if (route.keptBy.empty() ||
            !subjectPattern(bridge.options.map, route.pattern, onBus, onNats))
            continue;
        streams[route.keptBy].push_back(onNats);
    }
    bool hasAll = true;
    for (const auto& [name, subjects] : streams) {
        std::string fault;
        if (natsLinkStream(bridge.nats, name, subjects, fault)) continue;
        bridgeSayFault(0, "a stream can't be had", name + ": " + fault);
        hasAll = false;
    }
    return hasAll;
}

bool openNats(Bridge& bridge, std::string& fault) {
    const NatsEvents events = {&bridge,     onNatsUp,       onNatsDown,
                               onNatsEnded, onNatsAnswered, onNatsError};
    if (!natsLinkOpen(bridge.nats, bridge.options, events, fault)) return false;
    natsInbox* inbox = nullptr;
    natsStatus status = natsInbox_Create(&inbox);
    if (status == NATS_OK) {
        bridge.natsInbox = inbox;
        bridge.idPrefix = bridge.options.name + "-" +
                          std::string(inbox).substr(std::string_view("_INBOX.").size()) + "-";
    }
    natsInbox_Destroy(inbox);
    if (status == NATS_OK && !bridge.group.isAlone) {
        status = natsConnection_Subscribe(&bridge.beats, bridge.nats.connection,
                                          ("pelmobridge.group." + bridge.options.group).c_str(),
                                          onBeat, &bridge);
    }
    if (status != NATS_OK) fault = natsStatus_GetText(status);
    return status == NATS_OK;
}

// False once NATS has refused the bridge for good.
bool watch(Bridge& bridge) {
    int64_t reportAt = steadyNow() + kStatusTime;
    bool hasStreams = false;
    while (stopWait(-1, 0, steadyNow() + kWatchTime) != StopWait::kStop) {
        std::vector<uint32_t> late;
        std::string end;
        bool isUp = false;
        {
            const std::lock_guard guard(bridge.lock);
            toBusExpire(bridge, steadyNow(), late);
            end = bridge.natsEnd;
            isUp = bridge.natsIsUp;
        }
        if (!end.empty()) return bridgeSay("NATS refuses the connection: " + end), false;
        if (isUp && !hasStreams) hasStreams = openStreams(bridge);
        if (!isUp) bridgeSayFault(0, "NATS isn't reached", natsLinkFault(bridge.nats));
        for (const uint32_t listener : late) {
            (void)pelmoEvent_DestroyEx(listener, nullptr);
        }
        if (steadyNow() < reportAt) continue;
        report(bridge);
        reportAt += kStatusTime;
    }
    return true;
}

int close(Bridge& bridge) {
    {
        const std::lock_guard guard(bridge.lock);
        bridge.isEnding = true;
    }
    bridge.wake.notify_all();
    bridge.ends.notify_all();
    if (bridge.publisher.joinable()) bridge.publisher.join();
    toBusClose(bridge);
    if (bridge.bus != 0) report(bridge);
    natsSubscription_Destroy(bridge.beats);
    natsLinkClose(bridge.nats);
    const bool isLost =
        bridge.group.leads && !(bridge.kept.items.empty() && bridge.plain.items.empty());
    if (isLost) {
        bridgeSay(std::to_string(bridge.kept.items.size() + bridge.plain.items.size()) +
                  " messages waited at the end and are lost");
    }
    const bool isDelivered = pelmo_Close() == kStatusSuccess;
    return isLost || !isDelivered ? kFailed : 0;
}

}  // namespace

void bridgeSay(const std::string& text) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    char time[kUtcTextBytes];
    std::string line(utcText(now.tv_sec, 0, time));
    line += " pelmobridge: ";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        line += byte < 0x20 || byte == 0x7F ? '?' : character;
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void bridgeSayFault(uint64_t counter, const char* what, const std::string& about) {
    struct Said {
        int64_t at = 0;
        int64_t pause = 0;
    };
    static std::mutex lock;
    static std::map<std::string, Said, std::less<>> all;
    {
        const std::lock_guard guard(lock);
        const int64_t now = steadyNow();
        Said& said = all[what];
        if (said.pause != 0 && now < said.at + said.pause) return;
        const bool lasts = said.pause != 0 && now < said.at + 2 * said.pause;
        said = {.at = now, .pause = lasts ? std::min(2 * said.pause, kMostFaultPause) : kSecond};
    }
    std::string text = what;
    if (!about.empty()) text += ": " + about;
    if (counter > 1) text += " (" + std::to_string(counter) + " so far)";
    bridgeSay(text);
}

int bridgeRun(const BridgeOptions& options) {
    Bridge bridge;
    bridge.options = options;
    bridge.answerCodec.form = options.form;
    bridge.group.name = options.name;
    bridge.group.isAlone = !options.isGroup;
    bridge.kept.limits.mostBytes = size_t{options.bufferMegabytes} << 20;
    bridge.plain.limits = bridge.kept.limits;
    groupBegin(bridge.group, steadyNow());
    bridge.kept.standsBy = bridge.plain.standsBy = !bridge.group.leads;

    pelmoStatus status = pelmo_Open();
    if (status != kStatusSuccess) return bridgeSay(pelmoStatus_GetText(status)), kFailed;
    std::string fault;
    if (!openNats(bridge, fault)) return bridgeSay(fault), close(bridge), kFailed;
    if (!connectBus(bridge)) return close(bridge), stopRequested() ? 0 : kFailed;
    bridge.publisher = std::thread(fromBusPublish, std::ref(bridge));
    status = openBus(bridge);
    if (status != kStatusSuccess) fault = pelmoStatus_GetText(status);
    if (status != kStatusSuccess || !toBusOpen(bridge, fault))
        return bridgeSay(fault), close(bridge), kFailed;
    bridgeSay("listens on both sides as " + options.name + " of the group " + options.group);
    const bool isWell = watch(bridge);
    const int ended = close(bridge);
    return isWell ? ended : kFailed;
}
