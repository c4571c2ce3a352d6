#include "lib/runtime/queue_wake.h"

#include <sched.h>
#include <unistd.h>

#include <atomic>

#include "lib/containers/dpa.h"
#include "lib/runtime/id.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/wakeup_pair.h"

namespace {

constexpr uint32_t kPlaces = 64;
constexpr uint32_t kFirstIds = 16;

static_assert(std::atomic<uint32_t>::is_always_lock_free &&
              std::atomic<WakeupPair*>::is_always_lock_free);

// Used by signal handlers. A wake counts itself in `callers` before it reads the pair; a close
// clears the pair before it waits for callers to be gone. Each is sequentially consistent: one sees
// the other.
struct WakeTable {
    std::atomic<uint32_t> ids[kPlaces];  // kNoId: free
    std::atomic<bool> all;
    std::atomic<bool> any;  // is there something to serve?
    std::atomic<uint32_t> callers;
    std::atomic<WakeupPair*> pair;
    std::atomic<pid_t> process;  // a child of a fork has no thread that would serve it
};
constinit WakeTable table{};

void note(uint32_t id) {
    for (std::atomic<uint32_t>& place : table.ids) {
        uint32_t found = kNoId;
        if (place.compare_exchange_strong(found, id) || found == id) return;
    }
    table.all.store(true);
}

pelmoStatus wake(uint32_t id) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    table.callers.fetch_add(1);
    WakeupPair* const pair = table.pair.load();
    const bool reaches = pair != nullptr && table.process.load() == getpid();
    if (reaches && id != kNoId) {
        note(id);
        table.any.store(true);
        wakeupPairWake(pair);
    }
    table.callers.fetch_sub(1);
    return reaches ? kStatusSuccess : kStatusNotInitialized;
}

void endWaits(uint32_t id) {
    Held<Queue> queue;
    if (queue.findLocked(id) == kStatusSuccess) {
        queue->wakes.add(queue->waiters != 0);
        if (queue->waiters != 0) Cond_Broadcast(&queue->cond);
        return;
    }
    Held<QueueGroup> group;
    if (group.findLocked(id) != kStatusSuccess) return;
    const bool hasWaiters = group->cond.waiters.load(std::memory_order_relaxed) > 0;
    group->wakes.add(hasWaiters);
    if (hasWaiters) Cond_Broadcast(&group->cond);
}

void endAllWaits() {
    Dpa* const ids = dpaCreate(kFirstIds);
    if (ids == nullptr) return;
    (void)idTableList(IdType::kQueue, ids);
    (void)idTableList(IdType::kQueueGroup, ids);
    for (uint32_t i = 0; i < ids->count; ++i)
        endWaits(idFromItem(ids->items[i]));
    dpaDestroy(ids);
}

}  // namespace

void wakesOpen(WakeupPair* pair) {
    table.process.store(getpid());
    table.pair.store(pair);
}

void wakesClose() {
    table.pair.store(nullptr);
    while (table.callers.load() != 0)
        sched_yield();
    for (std::atomic<uint32_t>& place : table.ids)
        place.store(kNoId);
    table.all.store(false);
}

void wakesServe() {
    if (!table.any.exchange(false)) return;
    for (std::atomic<uint32_t>& place : table.ids) {
        const uint32_t id = place.exchange(kNoId);
        if (id != kNoId) endWaits(id);
    }
    if (table.all.exchange(false)) endAllWaits();
}

pelmoStatus pelmoQueue_Wake(uint32_t queue) {
    return wake(queue);
}

pelmoStatus pelmoQueueGroup_Wake(uint32_t group) {
    return wake(group);
}
