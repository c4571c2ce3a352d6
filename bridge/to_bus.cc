// From NATS to the bus: plain subscriptions, durable consumers, and answers to requests both ways.

#include <algorithm>
#include <chrono>

#include "bridge/bridge.h"
#include "programs/steady_time.h"

namespace {

constexpr int kFetchMessages = 128;
constexpr int64_t kFetchMilliseconds = 500;
constexpr int64_t kRetryTime = kSecond / 4;
constexpr int64_t kOpenRetryTime = 2 * kSecond;
constexpr int64_t kKeepAliveTime = 5 * kSecond;
constexpr int64_t kAnswerWait = 30 * kSecond;  // what a stream allows until it sends again
constexpr int kMostWaitingMessages = 1 << 20;

void countUp(Bridge& bridge,
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

bool isEnding(Bridge& bridge) {
    const std::lock_guard guard(bridge.lock);
    return bridge.isEnding;
}

// Waits, but not beyond the end. False at the end.
bool pause(Bridge& bridge, int64_t time) {
    std::unique_lock lock(bridge.lock);
    return !bridge.ends.wait_for(lock, std::chrono::nanoseconds(time),
                                 [&] { return bridge.isEnding; });
}

BridgeMark markOf(natsMsg* message, bool isAgain) {
    BridgeMark mark;
    const char* const path = natsHeaderOf(message, "Pelmo-Origin");
    const char* const sequence = natsHeaderOf(message, "Pelmo-Sequence");
    if (path != nullptr && pathIsGood(path)) mark.path = path;
    if (sequence != nullptr) mark.sequence = std::strtoull(sequence, nullptr, 10);
    mark.mayBeRepeat = isAgain || natsHeaderOf(message, "Pelmo-Repeat") != nullptr;
    return mark;
}

// A message for the bus with its mark and without subjects. Null where it doesn't cross; it is
// counted then.
OwnedMessage fromNats(BridgeSide& side, natsMsg* message, bool isAgain) {
    Bridge& bridge = *side.bridge;
    BridgeMark mark = markOf(message, isAgain);
    if (pathEndsAt(mark.path, bridge.options.group)) {
        return countUp(bridge, &BridgeCounts::loops, nullptr, ""), nullptr;
    }
    const std::string_view body(natsMsg_GetData(message),
                                static_cast<size_t>(natsMsg_GetDataLength(message)));
    const char* fault = nullptr;
    OwnedMessage made = bodyRead(side.codec, body, fault);
    if (made == nullptr) {
        return countUp(bridge, &BridgeCounts::badBodies, fault, natsMsg_GetSubject(message)),
               nullptr;
    }
    pathAdd(mark.path, bridge.options.group);
    const pelmoStatus status = markAdd(made.get(), mark);
    if (status == kStatusSuccess) return made;
    return countUp(bridge, &BridgeCounts::badBodies, pelmoStatus_GetText(status),
                   natsMsg_GetSubject(message)),
           nullptr;
}

// False where the subject has no counterpart on the bus; it is counted then.
bool address(Bridge& bridge, const char* subject, pelmoMsg* message) {
    std::string onBus;
    if (subjectToBus(bridge.options.map, subject, onBus) &&
        pelmoMsg_SetSendSubject(message, onBus.c_str()) == kStatusSuccess) {
        return true;
    }
    return countUp(bridge, &BridgeCounts::badSubjects, "can't cross to the bus", subject), false;
}

// Requests that came from NATS

void onBusAnswer(uint32_t event, pelmoMsg* message, void* closure) {
    auto& bridge = *static_cast<Bridge*>(closure);
    std::string reply;
    {
        const std::lock_guard guard(bridge.lock);
        const auto found = bridge.toBusRequests.find(event);
        if (found == bridge.toBusRequests.end()) return;
        reply = std::move(found->second.reply);
        bridge.toBusRequests.erase(found);
    }
    (void)pelmoEvent_DestroyEx(event, nullptr);
    BridgeMark mark;
    std::string body;
    const pelmoStatus status = bodyWrite(bridge.answerCodec, message, body, mark);
    pathAdd(mark.path, bridge.options.group);
    natsMsg* const answer =
        status == kStatusSuccess
            ? natsLinkMessage(reply, "", body, {{"Pelmo-Origin", mark.path.c_str()}})
            : nullptr;
    if (answer == nullptr || natsConnection_PublishMsg(bridge.nats.connection, answer) != NATS_OK) {
        countUp(bridge, &BridgeCounts::requestsLate, "an answer can't cross to NATS", reply);
    }
    natsMsg_Destroy(answer);
}

// Gives the message a reply subject of the bus, where the request had one of NATS. False: it is
// counted.
bool expectAnswer(Bridge& bridge, const char* natsReply, pelmoMsg* message) {
    if (natsReply == nullptr) return true;
    char inbox[128];
    uint32_t listener = 0;
    const std::unique_lock lock(bridge.lock);
    pelmoStatus status =
        bridge.toBusRequests.size() < kMostBridgeRequests ? kStatusSuccess : kStatusNoMemory;
    if (status == kStatusSuccess)
        status = pelmoTransport_CreateInbox(bridge.bus, inbox, sizeof inbox);
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&listener, bridge.queue, onBusAnswer, bridge.bus, inbox,
                                           &bridge);
    }
    if (status == kStatusSuccess) {
        bridge.toBusRequests[listener] = {natsReply,
                                          steadyAfter(steadyNow(), bridge.options.requestSeconds)};
        status = pelmoMsg_SetReplySubject(message, inbox);
    }
    bridge.counts.requests += status == kStatusSuccess ? 1 : 0;
    bridge.counts.requestsLate += status == kStatusSuccess ? 0 : 1;
    return status == kStatusSuccess;
}

// Plain subjects

void onNatsMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    auto& side = *static_cast<BridgeSide*>(closure);
    Bridge& bridge = *side.bridge;
    const OwnedMessage made = fromNats(side, message, false);
    const char* const subject = natsMsg_GetSubject(message);
    if (made != nullptr && address(bridge, subject, made.get()) &&
        expectAnswer(bridge, natsMsg_GetReply(message), made.get())) {
        const pelmoStatus status = pelmoTransport_Send(bridge.bus, made.get());
        const bool isSent = status == kStatusSuccess;
        countUp(bridge, isSent ? &BridgeCounts::toBus : &BridgeCounts::busRefused,
                isSent ? nullptr : pelmoStatus_GetText(status), subject);
    }
    natsMsg_Destroy(message);
}

// Answers from NATS to requests of the bus.
void onNatsAnswer(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    auto& side = *static_cast<BridgeSide*>(closure);
    Bridge& bridge = *side.bridge;
    const std::string_view subject = natsMsg_GetSubject(message);
    const uint64_t number =
        std::strtoull(subject.substr(subject.rfind('.') + 1).data(), nullptr, 10);
    std::string reply;
    {
        const std::lock_guard guard(bridge.lock);
        const auto found = bridge.fromBusRequests.find(number);
        if (found != bridge.fromBusRequests.end()) {
            reply = std::move(found->second.reply);
            bridge.fromBusRequests.erase(found);
        }
    }
    // Nobody answers: the asker on the bus is told by its own limit, as on the bus.
    if (!reply.empty() && natsMsg_IsNoResponders(message)) {
        countUp(bridge, &BridgeCounts::requestsLate, "nobody answers on NATS", reply);
        reply.clear();
    }
    const OwnedMessage made = reply.empty() ? nullptr : fromNats(side, message, false);
    if (made != nullptr) {
        pelmoStatus status = pelmoMsg_SetSendSubject(made.get(), reply.c_str());
        if (status == kStatusSuccess) status = pelmoTransport_Send(bridge.bus, made.get());
        countUp(bridge, status == kStatusSuccess ? &BridgeCounts::toBus : &BridgeCounts::busRefused,
                status == kStatusSuccess ? nullptr : pelmoStatus_GetText(status), reply);
    }
    natsMsg_Destroy(message);
}

// Durable consumers

natsSubscription* openConsumer(BridgeSide& side, const std::string& subject) {
    const BridgeOptions& options = side.bridge->options;
    jsSubOptions wanted;
    jsSubOptions_Init(&wanted);
    wanted.ManualAck = true;
    wanted.Config.AckPolicy = js_AckExplicit;
    wanted.Config.AckWait = kAnswerWait;
    wanted.Config.DeliverPolicy = js_DeliverAll;
    wanted.Config.FilterSubject = subject.c_str();
    wanted.Config.ReplayPolicy = options.replayOriginal ? js_ReplayOriginal : js_ReplayInstant;
    natsSubscription* subscription = nullptr;
    jsErrCode code = jsErrCode{};
    const natsStatus status =
        js_PullSubscribe(&subscription, side.bridge->nats.streams, subject.c_str(),
                         side.route->keptBy.c_str(), nullptr, &wanted, &code);
    if (status == NATS_OK) return subscription;
    bridgeSayFault(0, "a durable consumer can't be had",
                   subject + ": " + natsFaultText(status, code));
    return nullptr;
}

// Sends, and again while there is no daemon. False at the end, or where the bus will never take it,
// which is counted.
bool sendKept(Bridge& bridge, natsMsg* message, pelmoMsg* made, bool& isForGood) {
    int64_t keepAliveAt = steadyAfter(steadyNow(), steadySeconds(kKeepAliveTime));
    for (;;) {
        const pelmoStatus status = pelmoTransport_Send(bridge.bus, made);
        if (status == kStatusSuccess)
            return countUp(bridge, &BridgeCounts::toBus, nullptr, ""), true;
        isForGood = status != kStatusDaemonNotConnected && status != kStatusInvalidIoSource &&
                    status != kStatusNoMemory;
        if (isForGood) {
            countUp(bridge, &BridgeCounts::busRefused, pelmoStatus_GetText(status),
                    natsMsg_GetSubject(message));
            return false;
        }
        if (!pause(bridge, kRetryTime)) return false;
        if (steadyNow() < keepAliveAt) continue;
        (void)natsMsg_InProgress(message, nullptr);
        keepAliveAt = steadyNow() + kKeepAliveTime;
    }
}

// Has it been brought before? A server that takes over from another one may not know of the last
// ones that this one had brought, so its count of deliveries isn't enough.
bool bringsAgain(BridgeSide& side, natsMsg* message) {
    jsMsgMetaData* meta = nullptr;
    if (natsMsg_GetMetaData(&meta, message) != NATS_OK) return false;
    const bool isAgain = meta->NumDelivered > 1 || meta->Sequence.Stream <= side.lastOfStream;
    side.lastOfStream = std::max(side.lastOfStream, meta->Sequence.Stream);
    jsMsgMetaData_Destroy(meta);
    return isAgain;
}

// One that can't cross is ended, so that the stream doesn't bring it again.
bool deliverKept(BridgeSide& side, natsMsg* message) {
    Bridge& bridge = *side.bridge;
    const OwnedMessage made = fromNats(side, message, bringsAgain(side, message));
    bool isForGood = true;
    if (made != nullptr && address(bridge, natsMsg_GetSubject(message), made.get()) &&
        sendKept(bridge, message, made.get(), isForGood)) {
        (void)natsMsg_Ack(message, nullptr);
        return true;
    }
    if (isForGood) (void)natsMsg_Term(message, nullptr);
    return isForGood;
}

void consume(BridgeSide& side) {
    Bridge& bridge = *side.bridge;
    std::string onBus, onNats;
    (void)subjectPattern(bridge.options.map, side.route->pattern, onBus, onNats);
    while (!isEnding(bridge)) {
        if (side.subscription == nullptr) side.subscription = openConsumer(side, onNats);
        if (side.subscription == nullptr) {
            (void)pause(bridge, kOpenRetryTime);
            continue;
        }
        natsMsgList list = {};
        const natsStatus status = natsSubscription_Fetch(&list, side.subscription, kFetchMessages,
                                                         kFetchMilliseconds, nullptr);
        bool goesOn = true;
        for (int at = 0; at < list.Count && goesOn; ++at) {
            goesOn = deliverKept(side, list.Msgs[at]);
        }
        natsMsgList_Destroy(&list);
        if (status != NATS_OK && status != NATS_TIMEOUT) {
            bridgeSayFault(0, "a durable consumer gives nothing", natsStatus_GetText(status));
            natsSubscription_Destroy(side.subscription);
            side.subscription = nullptr;
            (void)pause(bridge, kRetryTime);
        }
    }
}

bool openRoute(Bridge& bridge, const BridgeRoute& route, std::string& fault) {
    std::string onBus, onNats;
    if (!subjectPattern(bridge.options.map, route.pattern, onBus, onNats))
        return fault = route.pattern, false;
    BridgeSide& side = *bridge.sides.emplace_back(std::make_unique<BridgeSide>());
    side.bridge = &bridge;
    side.route = &route;
    if (!route.keptBy.empty()) {
        side.thread = std::thread(consume, std::ref(side));
        return true;
    }
    const char* const queue = bridge.options.group.c_str();
    natsStatus status = natsConnection_QueueSubscribe(&side.subscription, bridge.nats.connection,
                                                      onNats.c_str(), queue, onNatsMessage, &side);
    if (status == NATS_OK) {
        const int mostBytes =
            static_cast<int>(std::min<uint32_t>(bridge.options.bufferMegabytes, 1024)) << 20;
        status =
            natsSubscription_SetPendingLimits(side.subscription, kMostWaitingMessages, mostBytes);
    }
    if (status != NATS_OK) fault = onNats + ": " + natsStatus_GetText(status);
    return status == NATS_OK;
}

}  // namespace

bool toBusOpen(Bridge& bridge, std::string& fault) {
    auto& answers = *bridge.sides.emplace_back(std::make_unique<BridgeSide>());
    answers.bridge = &bridge;
    const natsStatus status =
        natsConnection_Subscribe(&answers.subscription, bridge.nats.connection,
                                 (bridge.natsInbox + ".*").c_str(), onNatsAnswer, &answers);
    if (status != NATS_OK) return fault = natsStatus_GetText(status), false;
    return std::ranges::all_of(bridge.options.toBus, [&](const BridgeRoute& route) {
        return openRoute(bridge, route, fault);
    });
}

void toBusClose(Bridge& bridge) {
    for (const auto& side : bridge.sides) {
        if (side->thread.joinable()) side->thread.join();
        natsSubscription_Destroy(side->subscription);
        side->subscription = nullptr;
    }
}

void toBusExpire(Bridge& bridge, int64_t now, std::vector<uint32_t>& outListeners) {
    std::erase_if(bridge.toBusRequests, [&](const auto& row) {
        const bool isLate = row.second.until <= now;
        if (isLate) outListeners.push_back(row.first);
        bridge.counts.requestsLate += isLate ? 1 : 0;
        return isLate;
    });
    bridge.counts.requestsLate += std::erase_if(
        bridge.fromBusRequests, [&](const auto& row) { return row.second.until <= now; });
}
