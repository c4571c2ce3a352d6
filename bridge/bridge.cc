#include "bridge/bridge.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "bridge/say.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr int kFailed = 1;
constexpr int64_t kConnectPause = kSecond;
constexpr int64_t kStatusTime = 60 * kSecond;
constexpr int64_t kWatchTime = kSecond / 4;

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
    pelmo::Message message("PELMOBRIDGE.STATUS." + bridge.options.name);
    message.add("group", bridge.options.group);
    for (const NamedCount& count : named) {
        message.add(count.name, count.value);
    }
    (void)bridge.bus->send(message);
}

// What libnats had no room for; plain subscriptions stay as they are while the bridge runs.
uint64_t natsDropped(const Bridge& bridge) {
    uint64_t dropped = 0;
    for (const auto& side : bridge.sides) {
        int64_t ofSide = 0;
        if (side->subscription == nullptr) continue;
        if (natsSubscription_GetDropped(side->subscription, &ofSide) != NATS_OK) continue;
        dropped += static_cast<uint64_t>(ofSide);
    }
    return dropped;
}

void report(Bridge& bridge) {
    const uint64_t dropped = natsDropped(bridge);
    std::vector<NamedCount> named;
    std::string json;
    {
        const std::lock_guard guard(bridge.lock);
        bridge.counts.natsDropped = std::max(bridge.counts.natsDropped, dropped);
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

void onNatsUp(void* closure, const std::string& server, size_t mostBytes) {
    auto& bridge = *static_cast<Bridge*>(closure);
    {
        const std::lock_guard guard(bridge.lock);
        bridge.natsIsUp = true;
        bridge.natsMostBytes = mostBytes;
        groupConnected(bridge.group, true, steadyNow());
    }
    bridge.wake.notify_one();
    bridgeSay("connected to " + server);
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

// Such as messages that came faster than the bus takes them, which the next status counts.
void onNatsError(void*, const char* text) {
    bridgeSayFault(0, text, "NATS");
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
    GroupTurn turn = GroupTurn::kNone;
    {
        const std::lock_guard guard(bridge.lock);
        turn = groupHear(bridge.group, beat, steadyNow());
    }
    if (turn == GroupTurn::kStandBy) bridgeSay("stands by in the group " + bridge.options.group);
}

// What the bus reports

void onBusBreak(Bridge& bridge, pelmo::MessageView) {
    bridgeCount(bridge, &BridgeCounts::busBreaks);
    bridge.ends.notify_all();
    bridgeSay("the bus is away");
}

void onBusReturn(Bridge&, pelmo::MessageView message) {
    char text[80];
    std::snprintf(text, sizeof text,
                  "the bus is back after %.1f s, in which its messages were missed",
                  message.get<double>("seconds").value_or(0.0));
    bridgeSay(text);
}

void onProbe(Bridge& bridge, pelmo::MessageView message) {
    {
        const std::lock_guard guard(bridge.lock);
        bridge.probesBack =
            std::max(bridge.probesBack, message.get<uint64_t>("number").value_or(0));
    }
    bridge.ends.notify_all();
}

bool connectBus(const BridgeOptions& options, std::optional<pelmo::Transport>& made) {
    for (uint64_t tries = 1;; ++tries) {
        auto bus = pelmo::Transport::connect({options.service, options.network, options.daemon});
        if (bus) return made.emplace(std::move(*bus)), true;
        const pelmoStatus status = bus.error().status();
        const bool mayCome = status == kStatusDaemonNotConnected || status == kStatusInitFailed;
        bridgeSayFault(mayCome ? tries : 0, "no connection to the bus", bus.error().text());
        if (!mayCome) return false;
        if (stopWait(-1, 0, steadyNow() + kConnectPause) == StopWait::kStop) return false;
    }
}

pelmoStatus listenToBus(Bridge& bridge,
                        const pelmo::Transport& bus,
                        const char* subject,
                        void (*reported)(Bridge&, pelmo::MessageView)) {
    auto listener = bridge.queue->listen(
        bus, subject,
        [&bridge, reported](pelmo::MessageView message) { reported(bridge, message); });
    if (!listener) return listener.error().status();
    bridge.listeners.push_back(std::move(*listener));
    return kStatusSuccess;
}

pelmoStatus openProbes(Bridge& bridge) {
    const auto inbox = bridge.probeBus->inbox();
    if (!inbox) return inbox.error().status();
    bridge.probeSubject = *inbox;
    return listenToBus(bridge, *bridge.probeBus, bridge.probeSubject.c_str(), onProbe);
}

// The bus, and the way back of probes where a stream is to be acknowledged.
bool connectBuses(Bridge& bridge) {
    const bool hasDurable = std::ranges::any_of(
        bridge.options.toBus, [](const BridgeRoute& route) { return !route.keptBy.empty(); });
    return connectBus(bridge.options, bridge.bus) &&
           (!hasDurable || connectBus(bridge.options, bridge.probeBus));
}

pelmoStatus openBus(Bridge& bridge) {
    pelmoStatus status = pelmoTransport_SetEcho(pelmo::number(bridge.bus->id()), false);
    if (status != kStatusSuccess) return status;
    auto queue = pelmo::Queue::make();
    if (!queue) return queue.error().status();
    bridge.queue.emplace(std::move(*queue));
    status = listenToBus(bridge, *bridge.bus, "_PM.WARN.SYSTEM.PMD.DISCONNECTED", onBusBreak);
    if (status == kStatusSuccess) {
        status = listenToBus(bridge, *bridge.bus, "_PM.INFO.SYSTEM.PMD.RECONNECTED", onBusReturn);
    }
    if (status == kStatusSuccess && bridge.probeBus) status = openProbes(bridge);
    if (status == kStatusSuccess) status = fromBusOpen(bridge);
    if (status != kStatusSuccess) return status;
    auto dispatcher = pelmo::Dispatcher::start(*bridge.queue);
    if (!dispatcher) return dispatcher.error().status();
    bridge.dispatcher.emplace(std::move(*dispatcher));
    return kStatusSuccess;
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
        bridgeSayFault(0, "a stream can't be had", fault.insert(0, name + ": "));
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

// Requests of the bus that NATS didn't answer in time. The lock is held.
void expireRequests(Bridge& bridge, int64_t now) {
    bridge.counts.requestsLate += std::erase_if(
        bridge.fromBusRequests, [&](const auto& row) { return row.second.until <= now; });
}

// False once NATS has refused the bridge for good.
bool watch(Bridge& bridge) {
    int64_t reportAt = steadyNow() + kStatusTime;
    bool hasStreams = false;
    while (stopWait(-1, 0, steadyNow() + kWatchTime) != StopWait::kStop) {
        std::string end;
        bool isUp = false;
        {
            const std::lock_guard guard(bridge.lock);
            expireRequests(bridge, steadyNow());
            end = bridge.natsEnd;
            isUp = bridge.natsIsUp;
        }
        if (!end.empty()) return bridgeSay("NATS refuses the connection: " + end), false;
        if (isUp && !hasStreams) hasStreams = openStreams(bridge);
        if (!isUp) bridgeSayFault(0, "NATS isn't reached", natsLinkFault(bridge.nats));
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
    if (bridge.bus) report(bridge);
    natsSubscription_Destroy(bridge.beats);
    natsLinkClose(bridge.nats);
    bridge.dispatcher.reset();  // no callback runs from here on
    bridge.listeners.clear();
    bridge.sides.clear();
    bridge.toBusRequests.clear();
    bridge.queue.reset();
    const size_t waiting = bridge.kept.items.size() + bridge.plain.items.size();
    const bool isLost = bridge.group.leads && waiting != 0;
    if (isLost) bridgeSay(std::to_string(waiting) + " messages waited at the end and are lost");
    const bool isDelivered = bridge.library.close().has_value();
    return isLost || !isDelivered ? kFailed : 0;
}

}  // namespace

void bridgeCount(Bridge& bridge,
                 uint64_t BridgeCounts::*member,
                 const char* what,
                 const std::string& about) {
    uint64_t counted = 0;
    {
        const std::lock_guard guard(bridge.lock);
        counted = ++(bridge.counts.*member);
    }
    if (what != nullptr) bridgeSayFault(counted, what, about);
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

    std::string fault;
    if (!openNats(bridge, fault)) return bridgeSay(fault), close(bridge), kFailed;
    if (!connectBuses(bridge)) return close(bridge), stopRequested() ? 0 : kFailed;
    bridge.publisher = std::thread(fromBusPublish, std::ref(bridge));
    const pelmoStatus status = openBus(bridge);
    if (status != kStatusSuccess) fault = pelmoStatus_GetText(status);
    if (status != kStatusSuccess || !toBusOpen(bridge, fault))
        return bridgeSay(fault), close(bridge), kFailed;
    bridgeSay("listens on both sides as " + options.name + " of the group " + options.group);
    const bool isWell = watch(bridge);
    const int ended = close(bridge);
    return isWell ? ended : kFailed;
}
