// From the bus to NATS: listeners, the publishing thread, and what streams answer.

#include <algorithm>
#include <chrono>

#include "bridge/bridge.h"
#include "bridge/say.h"
#include "programs/steady_time.h"

namespace {

constexpr size_t kBatchMessages = 64;
constexpr int64_t kTickTime = kSecond / 4;
constexpr int64_t kEndTime = 5 * kSecond;
constexpr int64_t kStreamPause = kSecond;

using Lock = std::unique_lock<std::mutex>;

// Messages on their way from an outbox to the connection.
struct Batch {
    Outbox& outbox;
    bool isKept;
    std::vector<natsMsg*> messages = {};
    std::vector<uint64_t> numbers = {};
    std::string refused = {};  // subject of the last that can't leave
};

// None where the message doesn't cross; it is counted then, unless it belongs to this bus alone.
std::optional<OutboxItem> makeItem(BridgeSide& side, pelmo::MessageView message) {
    Bridge& bridge = *side.bridge;
    const std::string subject(message.subject());
    if (subjectIsLocal(subject)) return std::nullopt;
    OutboxItem item;
    if (!subjectToNats(bridge.options.map, subject, item.subject)) {
        bridgeCount(bridge, &BridgeCounts::badSubjects, "can't cross to NATS", subject);
        return std::nullopt;
    }
    BridgeMark mark;
    const pelmoStatus status = bodyWrite(side.codec, message, item.body, mark);
    if (status != kStatusSuccess) {
        bridgeCount(bridge, &BridgeCounts::badBodies, pelmoStatus_GetText(status), subject);
        return std::nullopt;
    }
    if (pathEndsAt(mark.path, bridge.options.group)) {
        bridgeCount(bridge, &BridgeCounts::loops);
        return std::nullopt;
    }
    item.path = mark.path;
    pathAdd(item.path, bridge.options.group);
    item.mayBeRepeat = mark.mayBeRepeat;
    item.reply = message.replySubject();
    return item;
}

void take(BridgeSide& side, std::span<const pelmo::MessageView> messages) {
    Bridge& bridge = *side.bridge;
    std::vector<OutboxItem> items;
    items.reserve(messages.size());
    for (const pelmo::MessageView message : messages) {
        std::optional<OutboxItem> item = makeItem(side, message);
        if (item) items.push_back(std::move(*item));
    }
    Outbox& outbox = side.route->keptBy.empty() ? bridge.plain : bridge.kept;
    const int64_t now = steadyNow();
    uint64_t gone = 0;
    uint64_t dropped = 0;
    {
        const std::lock_guard guard(bridge.lock);
        for (OutboxItem& item : items) {
            gone += outboxAdd(outbox, std::move(item), now);
        }
        dropped = outbox.dropped;
    }
    bridge.wake.notify_one();
    if (gone != 0) {
        bridgeSayFault(dropped, "messages dropped, the oldest first: --buffer is full", "");
    }
}

// Where the answer to a request comes; empty for none, or where too many wait.
std::string answerSubject(Bridge& bridge, const OutboxItem& item, int64_t now) {
    if (item.reply.empty()) return {};
    if (bridge.fromBusRequests.size() >= kMostBridgeRequests) {
        ++bridge.counts.requestsLate;
        return {};
    }
    const uint64_t number = ++bridge.lastRequest;
    bridge.fromBusRequests[number] = {item.reply, steadyAfter(now, bridge.options.requestSeconds)};
    ++bridge.counts.requests;
    return bridge.natsInbox + "." + std::to_string(number);
}

natsMsg* toNats(Bridge& bridge, const OutboxItem& item, bool isKept, int64_t now) {
    const std::string number = std::to_string(item.number);
    const std::string id = bridge.idPrefix + number;
    const std::vector<NatsHeader> headers = {
        {"Pelmo-Origin", item.path.c_str()},
        {"Pelmo-Sequence", number.c_str()},
        {"Pelmo-Repeat", item.mayBeRepeat ? "maybe" : nullptr},
        {"Pelmo-Reply", isKept && !item.reply.empty() ? item.reply.c_str() : nullptr},
        {"Nats-Msg-Id", isKept ? id.c_str() : nullptr},
    };
    const std::string reply =
        isKept ? natsLinkAnswerSubject(bridge.nats, item.number) : answerSubject(bridge, item, now);
    return natsLinkMessage(item.subject, reply, item.body, headers);
}

// What can't be made into a message, or is larger than the server takes, would never leave.
void collect(Bridge& bridge, Batch& batch, int64_t now) {
    while (batch.messages.size() < kBatchMessages) {
        const OutboxItem* const item = outboxNext(batch.outbox, now);
        if (item == nullptr) return;
        const bool fits = item->body.size() <= bridge.natsMostBytes;
        natsMsg* const message = fits ? toNats(bridge, *item, batch.isKept, now) : nullptr;
        if (message != nullptr) {
            batch.messages.push_back(message);
            batch.numbers.push_back(item->number);
            continue;
        }
        ++bridge.counts.tooLarge;
        batch.refused = item->subject;
        outboxRefuse(batch.outbox, item->number);
    }
}

// Returns how many left before the first that didn't.
size_t send(Bridge& bridge, Batch& batch) {
    size_t sent = 0;
    for (natsMsg* const message : batch.messages) {
        if (natsConnection_PublishMsg(bridge.nats.connection, message) != NATS_OK) break;
        ++sent;
    }
    for (natsMsg* const message : batch.messages) {
        natsMsg_Destroy(message);
    }
    return sent;
}

void settle(Bridge& bridge, Batch& batch, size_t sent, int64_t now) {
    bridge.counts.toNats += sent;
    for (size_t at = 0; !batch.isKept && at < sent; ++at) {
        outboxAcknowledge(batch.outbox, batch.numbers[at]);
    }
    if (sent == batch.numbers.size()) return;
    outboxRepeatFrom(batch.outbox, batch.numbers[sent]);
    outboxHold(batch.outbox, now + kTickTime);
}

// Publishes what it can. True where all that it took has left.
bool publishOnce(Bridge& bridge, Lock& lock, Outbox& outbox, bool isKept) {
    if (!bridge.natsIsUp) return false;
    Batch batch{outbox, isKept};
    collect(bridge, batch, steadyNow());
    const uint64_t tooLarge = bridge.counts.tooLarge;
    if (batch.messages.empty() && batch.refused.empty()) return false;
    lock.unlock();
    if (!batch.refused.empty()) {
        bridgeSayFault(tooLarge, "too large for NATS, or no memory", batch.refused);
    }
    const size_t sent = send(bridge, batch);
    lock.lock();
    settle(bridge, batch, sent, steadyNow());
    return sent == batch.numbers.size();
}

std::string beatText(const Bridge& bridge, int64_t now) {
    const int64_t oldest =
        std::max(outboxOldest(bridge.kept, now), outboxOldest(bridge.plain, now));
    return bridge.options.name + (bridge.group.leads ? " leads " : " waits ") +
           std::to_string(oldest) + " " + std::to_string(now - bridge.group.listensSince);
}

void turnTo(Bridge& bridge, GroupTurn turn) {
    if (turn == GroupTurn::kNone) return;
    bridgeSay(turn == GroupTurn::kLead
                  ? "takes messages from the bus for the group " + bridge.options.group
                  : "stands by in the group " + bridge.options.group);
    if (turn == GroupTurn::kLead) {
        outboxTakeOver(bridge.kept);
        outboxTakeOver(bridge.plain);
    }
}

// Returns when to come again at the latest.
int64_t tick(Bridge& bridge, Lock& lock) {
    const int64_t now = steadyNow();
    bool isBeatDue = false;
    turnTo(bridge, groupTick(bridge.group, now, isBeatDue));
    if (!bridge.group.leads) {
        outboxStandBy(bridge.kept, groupKeepSince(bridge.group, now));
        outboxStandBy(bridge.plain, groupKeepSince(bridge.group, now));
    }
    const int64_t due = std::min(outboxTick(bridge.kept, now), outboxTick(bridge.plain, now));
    const std::string beat = isBeatDue ? beatText(bridge, now) : "";
    if (isBeatDue) {
        lock.unlock();
        (void)natsConnection_PublishString(bridge.nats.connection,
                                           ("pelmobridge.group." + bridge.options.group).c_str(),
                                           beat.c_str());
        lock.lock();
    }
    return std::min(due, now + kTickTime);
}

bool isDone(const Bridge& bridge, int64_t endsBy) {
    if (!bridge.isEnding) return false;
    const bool isEmpty = bridge.kept.items.empty() && bridge.plain.items.empty();
    return isEmpty || !bridge.group.leads || steadyNow() >= endsBy;
}

}  // namespace

pelmoStatus fromBusOpen(Bridge& bridge) {
    {
        const std::lock_guard guard(bridge.lock);
        bridge.group.listensSince = steadyNow();
    }
    for (const BridgeRoute& route : bridge.options.fromBus) {
        std::string onBus, onNats;
        if (!subjectPattern(bridge.options.map, route.pattern, onBus, onNats)) {
            return kStatusInvalidSubject;
        }
        BridgeSide* const side = bridge.sides.emplace_back(std::make_unique<BridgeSide>()).get();
        side->bridge = &bridge;
        side->route = &route;
        side->codec.form = bridge.options.form;
        auto listener = bridge.queue->listenMany(
            *bridge.bus, onBus,
            [side](std::span<const pelmo::MessageView> messages) { take(*side, messages); });
        if (!listener) return listener.error().status();
        bridge.listeners.push_back(std::move(*listener));
    }
    return kStatusSuccess;
}

void fromBusPublish(Bridge& bridge) {
    Lock lock(bridge.lock);
    int64_t endsBy = kNever;
    int64_t tickAt = 0;
    for (;;) {
        if (bridge.isEnding && endsBy == kNever) endsBy = steadyNow() + kEndTime;
        if (isDone(bridge, endsBy)) return;
        if (steadyNow() >= tickAt) tickAt = tick(bridge, lock);
        const bool keptLeft = publishOnce(bridge, lock, bridge.kept, true);
        const bool plainLeft = publishOnce(bridge, lock, bridge.plain, false);
        if (keptLeft || plainLeft) continue;
        const int64_t wait = std::clamp<int64_t>(tickAt - steadyNow(), 0, kTickTime);
        bridge.wake.wait_for(lock, std::chrono::nanoseconds(wait));
    }
}

void fromBusAnswered(Bridge& bridge, uint64_t number, natsMsg* answer) {
    std::string fault;
    const std::string_view body(natsMsg_GetData(answer),
                                static_cast<size_t>(natsMsg_GetDataLength(answer)));
    const StreamAnswer said = streamAnswerRead(body, natsMsg_IsNoResponders(answer), fault);
    natsMsg_Destroy(answer);
    uint64_t refused = 0;
    {
        const std::lock_guard guard(bridge.lock);
        Outbox& outbox = bridge.kept;
        if (said == StreamAnswer::kTaken) outboxAcknowledge(outbox, number);
        if (said == StreamAnswer::kRefused) outboxRefuse(outbox, number);
        if (said == StreamAnswer::kPassing) {
            outboxRepeatFrom(outbox, number);
            outboxHold(outbox, steadyNow() + kStreamPause);
        }
        refused = outbox.refused;
    }
    if (said == StreamAnswer::kTaken) bridge.wake.notify_one();
    if (said == StreamAnswer::kPassing) bridgeSayFault(0, "a stream takes nothing", fault);
    if (said == StreamAnswer::kRefused) bridgeSayFault(refused, "a stream refused messages", fault);
}
