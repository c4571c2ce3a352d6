#include <algorithm>
#include <cstdlib>

#include "lib/containers/dpa.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"

namespace {

constexpr uint32_t kFirstQueues = 4;
constexpr uint32_t kFirstGroups = 2;

// No other thread can reach the group, since it has no id any more or not yet, so no lock is
// needed.
void destruct(IdHeader* object) PELMO_UNCHECKED_LOCKING {
    auto* group = reinterpret_cast<QueueGroup*>(object);
    dpaDestroy(group->queues);
    Cond_Destroy(&group->cond);
    std::free(group);
}

// Makes a group with its base reference and no id. Null when memory ran out.
QueueGroup* newGroup() PELMO_UNCHECKED_LOCKING {
    auto* group = static_cast<QueueGroup*>(std::calloc(1, sizeof(QueueGroup)));
    if (group == nullptr) return nullptr;
    group->queues = dpaCreate(kFirstQueues);
    if (group->queues != nullptr) {
        if (Cond_Init(&group->cond) == kStatusSuccess) {
            if (Id_Init(&group->header, IdType::kQueueGroup, destruct) == kStatusSuccess) {
                return group;
            }
            Cond_Destroy(&group->cond);
        }
        dpaDestroy(group->queues);
    }
    std::free(group);
    return nullptr;
}

// The queue's current priority. A destroyed queue counts as the lowest, so that it is sorted to the
// end.
uint32_t priorityOf(const void* item) {
    Held<Queue> queue;
    return queue.findLocked(idFromItem(item)) == kStatusSuccess ? queue->priority : 0;
}

// Moves one queue forward past those of lower priority, to which the ones before it are sorted.
void siftLocked(QueueGroup* group, uint32_t from) PELMO_REQUIRES(group->header.lock) {
    void** const items = group->queues->items;
    const uint32_t priority = priorityOf(items[from]);
    uint32_t place = from;
    while (place > 0 && priorityOf(items[place - 1]) < priority)
        --place;
    std::rotate(items + place, items + from, items + from + 1);
}

// Sorts by the current priorities and keeps equal ones in their order. The whole list is sorted,
// since two priorities may have changed at the same time, and either change may get here first.
void sortLocked(QueueGroup* group) PELMO_REQUIRES(group->header.lock) {
    for (uint32_t i = 1; i < group->queues->count; ++i)
        siftLocked(group, i);
}

bool removeLocked(QueueGroup* group, uint32_t queue) PELMO_REQUIRES(group->header.lock) {
    const int32_t index = dpaIndexOf(group->queues, idToItem(queue));
    return index >= 0 && dpaRemoveAt(group->queues, static_cast<uint32_t>(index));
}

// The queue's side of joining and leaving. Both are called with the group's lock held.

pelmoStatus joinLocked(uint32_t queue, uint32_t group) {
    Held<Queue> held;
    if (held.findLocked(queue) != kStatusSuccess) return kStatusInvalidQueue;
    if (held->synchronous) return kStatusNoMemory;
    if (held->groups == nullptr) held->groups = dpaCreate(kFirstGroups);
    if (held->groups == nullptr || !dpaAppend(held->groups, idToItem(group))) {
        return kStatusNoMemory;
    }
    return kStatusSuccess;
}

void partLocked(uint32_t queue, uint32_t group) {
    Held<Queue> held;
    if (held.findLocked(queue) != kStatusSuccess || held->groups == nullptr) return;
    dpaRemoveValue(held->groups, idToItem(group));
}

}  // namespace

pelmoStatus pelmoQueueGroup_Create(uint32_t* out) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (out == nullptr) return kStatusInvalidArgument;
    QueueGroup* group = newGroup();
    if (group == nullptr) return kStatusNoMemory;
    if (Id_SetGlobal(&group->header, out) != kStatusSuccess) {
        Id_Release(&group->header, false);
        return kStatusNoMemory;
    }
    traceLine(kTraceQueueGroup, "pelmoQueueGroup_Create(%u)", *out);
    return kStatusSuccess;
}

// Its queues keep its id until they next visit their groups.
pelmoStatus pelmoQueueGroup_Destroy(uint32_t group) {
    traceLine(kTraceQueueGroup, "pelmoQueueGroup_Destroy(%u)", group);
    Held<QueueGroup> held;
    if (held.destroyLocked(group) != kStatusSuccess) {
        return kStatusInvalidQueueGroup;
    }
    held->queues->count = 0;
    Cond_Broadcast(&held->cond);
    return kStatusSuccess;
}

pelmoStatus pelmoQueueGroup_Add(uint32_t group, uint32_t queue) {
    traceLine(kTraceQueueGroup, "pelmoQueueGroup_Add(%u, %u)", group, queue);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (Id_Check(queue, IdType::kQueue) != kStatusSuccess) return kStatusInvalidQueue;
    Held<QueueGroup> held;
    if (held.findLocked(group) != kStatusSuccess) return kStatusInvalidQueueGroup;
    if (dpaIndexOf(held->queues, idToItem(queue)) >= 0) return kStatusSuccess;

    // The group's id is entered in the queue first: a later change of priority, or a destroy of the
    // queue, then waits for this group's lock and finds the queue in the group.
    const pelmoStatus status = joinLocked(queue, group);
    if (status != kStatusSuccess) return status;
    if (!dpaAppend(held->queues, idToItem(queue))) {
        partLocked(queue, group);
        return kStatusNoMemory;
    }
    // The others are sorted, except those whose change of priority hasn't arrived here yet.
    siftLocked(held.get(), held->queues->count - 1);
    Cond_Signal(&held->cond);
    return kStatusSuccess;
}

pelmoStatus pelmoQueueGroup_Remove(uint32_t group, uint32_t queue) {
    traceLine(kTraceQueueGroup, "pelmoQueueGroup_Remove(%u, %u)", group, queue);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    Held<QueueGroup> held;
    if (held.findLocked(group) != kStatusSuccess) return kStatusInvalidQueueGroup;
    if (!removeLocked(held.get(), queue)) return kStatusInvalidQueue;
    partLocked(queue, group);
    return kStatusSuccess;
}

bool QueueGroup_Signal(uint32_t group, uint32_t times) {
    Held<QueueGroup> held;
    if (held.find(group) != kStatusSuccess) return false;
    while (times-- > 0)
        Cond_Signal(&held->cond);
    return true;
}

void QueueGroup_Forget(uint32_t group, uint32_t queue) {
    Held<QueueGroup> held;
    if (held.findLocked(group) != kStatusSuccess) return;
    removeLocked(held.get(), queue);
}

// Puts the queue after the others of its new priority.
bool QueueGroup_Reorder(uint32_t group, uint32_t queue) {
    Held<QueueGroup> held;
    if (held.findLocked(group) != kStatusSuccess) return false;
    if (!removeLocked(held.get(), queue)) return true;
    held->queues->items[held->queues->count++] = idToItem(queue);  // into the place just freed
    sortLocked(held.get());
    return true;
}

// From the last one back, and each at the place that it was copied from: a search would make the
// visit of many dead groups take time by the square of their number.
void QueueGroups::dropLocked(uint32_t gone) {
    Dpa* const groups = queue->groups;
    for (uint32_t i = count; groups != nullptr && i-- > 0;) {
        if ((gone >> i & 1) == 0) continue;
        const uint32_t place = left + i;
        if (place < groups->count && idFromItem(groups->items[place]) == ids[i]) {
            dpaRemoveAt(groups, place);
        } else {
            dpaRemoveValue(groups, idToItem(ids[i]));
        }
    }
}
