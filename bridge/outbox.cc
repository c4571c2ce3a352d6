#include "bridge/outbox.h"

#include <algorithm>
#include <utility>

#include "programs/steady_time.h"

namespace {

constexpr size_t kItemBytes = sizeof(OutboxItem);
constexpr size_t kMostUnsure = 1 << 16;

size_t bytesOf(const OutboxItem& item) {
    return kItemBytes + item.subject.size() + item.body.size() + item.reply.size() +
           item.path.size();
}

void dropFirst(Outbox& outbox) {
    const OutboxItem& first = outbox.items.front();
    outbox.bytes -= bytesOf(first);
    if (outbox.published > 0) {
        --outbox.published;
        outbox.unacknowledged -= first.isAcknowledged ? 0 : 1;
    }
    outbox.items.pop_front();
}

void dropAcknowledged(Outbox& outbox) {
    while (!outbox.items.empty() && outbox.items.front().isAcknowledged) {
        dropFirst(outbox);
    }
}

// Null for one that wasn't published, or is settled.
OutboxItem* findUnsettled(Outbox& outbox, uint64_t number) {
    if (outbox.items.empty() || number < outbox.items.front().number) return nullptr;
    const uint64_t at = number - outbox.items.front().number;
    if (at >= outbox.items.size()) return nullptr;
    OutboxItem& item = outbox.items[at];
    return item.isAcknowledged || item.publishedAt == 0 ? nullptr : &item;
}

bool isOnItsWay(const Outbox& outbox, const OutboxItem& item) {
    return item.number - outbox.items.front().number < outbox.published;
}

// One that was taken back for a repeat needs none.
void settle(Outbox& outbox, OutboxItem& item) {
    item.isAcknowledged = true;
    outbox.unacknowledged -= isOnItsWay(outbox, item) ? 1 : 0;
    dropAcknowledged(outbox);
}

// The stream may have it, which its answer will say.
void dropAtBound(Outbox& outbox, const OutboxItem& item) {
    ++outbox.dropped;
    if (item.publishedAt == 0) return;
    outbox.unsure.insert(item.number);
    if (outbox.unsure.size() > kMostUnsure) outbox.unsure.erase(outbox.unsure.begin());
}

}  // namespace

uint64_t outboxAdd(Outbox& outbox, OutboxItem item, int64_t now) {
    item.number = ++outbox.lastNumber;
    item.cameAt = now;
    ++outbox.added;
    outbox.bytes += bytesOf(item);
    outbox.items.push_back(std::move(item));
    uint64_t gone = 0;
    while (outbox.bytes > outbox.limits.mostBytes) {
        const OutboxItem& first = outbox.items.front();
        if (!first.isAcknowledged) {
            ++gone;
            dropAtBound(outbox, first);
        }
        dropFirst(outbox);
    }
    dropAcknowledged(outbox);
    return gone;
}

const OutboxItem* outboxNext(Outbox& outbox, int64_t now) {
    if (outbox.standsBy || now < outbox.heldUntil) return nullptr;
    // What was acknowledged before it was taken back for a repeat needs none.
    while (outbox.published < outbox.items.size() &&
           outbox.items[outbox.published].isAcknowledged) {
        ++outbox.published;
    }
    dropAcknowledged(outbox);
    if (outbox.published == outbox.items.size() || outbox.unacknowledged >= outbox.limits.window)
        return nullptr;
    OutboxItem& item = outbox.items[outbox.published++];
    ++outbox.unacknowledged;
    item.publishedAt = std::max<int64_t>(now, 1);
    outbox.repeated += item.mayBeRepeat ? 1 : 0;
    return &item;
}

void outboxAcknowledge(Outbox& outbox, uint64_t number) {
    if (outbox.unsure.erase(number) != 0) {
        --outbox.dropped;
        ++outbox.acknowledged;
        return;
    }
    OutboxItem* const item = findUnsettled(outbox, number);
    if (item == nullptr) return;
    ++outbox.acknowledged;
    settle(outbox, *item);
}

void outboxRefuse(Outbox& outbox, uint64_t number) {
    OutboxItem* const item = findUnsettled(outbox, number);
    if (item == nullptr) return;
    ++outbox.refused;
    settle(outbox, *item);
}

void outboxRepeatFrom(Outbox& outbox, uint64_t number) {
    const OutboxItem* const from = findUnsettled(outbox, number);
    if (from == nullptr || !isOnItsWay(outbox, *from)) return;
    const auto at = static_cast<uint32_t>(number - outbox.items.front().number);
    for (uint32_t i = at; i < outbox.published; ++i) {
        OutboxItem& item = outbox.items[i];
        if (item.isAcknowledged) continue;
        item.mayBeRepeat = true;
        --outbox.unacknowledged;
    }
    outbox.published = at;
}

void outboxHold(Outbox& outbox, int64_t until) {
    outbox.heldUntil = until;
}

void outboxBreak(Outbox& outbox) {
    if (outbox.published > 0) outboxRepeatFrom(outbox, outbox.items.front().number);
}

int64_t outboxTick(Outbox& outbox, int64_t now) {
    if (outbox.unacknowledged == 0) return outbox.heldUntil > now ? outbox.heldUntil : kNever;
    // The first is never an acknowledged one, and was published before those after it.
    const OutboxItem& first = outbox.items.front();
    const int64_t due = first.publishedAt + outbox.limits.answerTime;
    if (due > now) return due;
    outboxRepeatFrom(outbox, first.number);
    return now;
}

int64_t outboxOldest(const Outbox& outbox, int64_t now) {
    return outbox.items.empty() ? 0 : now - outbox.items.front().cameAt;
}

void outboxStandBy(Outbox& outbox, int64_t keepSince) {
    outboxBreak(outbox);
    outbox.standsBy = true;
    while (!outbox.items.empty() && outbox.items.front().cameAt < keepSince) {
        dropFirst(outbox);
    }
}

void outboxTakeOver(Outbox& outbox) {
    if (!outbox.standsBy) return;
    outbox.standsBy = false;
    for (OutboxItem& item : outbox.items) {
        item.mayBeRepeat = true;
    }
}
