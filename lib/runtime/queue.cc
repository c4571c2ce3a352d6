#include <cstdlib>

#include "lib/base/text.h"
#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"

namespace {

constexpr uint32_t kRingCapacity = 8;
constexpr uint32_t kFirstPriority = 1;

// Nobody else knows the queue any more, so that no lock is needed.
void destruct(IdHeader* object) PELMO_UNCHECKED_LOCKING {
    auto* queue = reinterpret_cast<Queue*>(object);
    msgReleaseRing(queue->ready);
    msgReleaseRing(queue->pending);
    dpaDestroy(queue->groups);
    Cond_Destroy(&queue->eventEnded);
    Cond_Destroy(&queue->hookEnded);
    Cond_Destroy(&queue->cond);
    Lock_Destroy(&queue->dataLock);
    if (queue->nameOwned) std::free(const_cast<char*>(queue->name));
    std::free(queue);
}

// Makes what the destructor relies on; false if any of it can't be had.
bool initParts(Queue* queue) {
    if (Lock_Init(&queue->dataLock, LockRank::kQueueData) != kStatusSuccess) return false;
    if (Cond_Init(&queue->cond) == kStatusSuccess) {
        if (Cond_Init(&queue->hookEnded) == kStatusSuccess) {
            if (Cond_Init(&queue->eventEnded) == kStatusSuccess) {
                if (Id_Init(&queue->header, IdType::kQueue, destruct) == kStatusSuccess)
                    return true;
                Cond_Destroy(&queue->eventEnded);
            }
            Cond_Destroy(&queue->hookEnded);
        }
        Cond_Destroy(&queue->cond);
    }
    Lock_Destroy(&queue->dataLock);
    return false;
}

// With the base reference, and no id: no other thread knows it yet. Null without memory.
Queue* newQueue(const char* name, bool synchronous) PELMO_UNCHECKED_LOCKING {
    auto* queue = static_cast<Queue*>(std::calloc(1, sizeof(Queue)));
    if (queue == nullptr) return nullptr;
    if (!initParts(queue)) {
        std::free(queue);
        return nullptr;
    }
    queue->header.flagLock = &queue->dataLock;
    queue->synchronous = synchronous;
    queue->name = name;
    queue->priority = kFirstPriority;
    queue->pending = EntryRing_Create(kRingCapacity);
    queue->ready = EntryRing_Create(kRingCapacity);
    if (queue->pending != nullptr && queue->ready != nullptr) return queue;
    Id_Release(&queue->header, false);
    return nullptr;
}

pelmoStatus create(uint32_t* out, bool synchronous) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (out == nullptr) return kStatusInvalidArgument;
    return Queue_Create(out, kNoId, "pelmoQueue", false, synchronous);
}

// What read(queue) returns under the queue's lock, which the lock checker can't recognise.
template <typename Value, typename Read>
pelmoStatus readQueue(uint32_t id, Value* out, Read read) PELMO_UNCHECKED_LOCKING {
    Held<Queue> held;
    if (const pelmoStatus status = queueFind(held, id); status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    *out = read(held.get());
    return kStatusSuccess;
}

}  // namespace

// Nobody else knows the queue until it has its id.
pelmoStatus Queue_Create(uint32_t* out,
                         uint32_t fixedId,
                         const char* name,
                         bool nameOwned,
                         bool synchronous) PELMO_UNCHECKED_LOCKING {
    Queue* queue = newQueue(name, synchronous);
    if (queue == nullptr) return kStatusNoMemory;
    // Before the id, by which others find the queue; released if it gets none.
    queue->nameOwned = nameOwned;

    uint32_t id = fixedId;
    const pelmoStatus status =
        fixedId != kNoId ? Id_SetFixed(&queue->header, fixedId) : Id_SetGlobal(&queue->header, &id);
    if (status != kStatusSuccess) {
        queue->nameOwned = false;
        Id_Release(&queue->header, false);
        return kStatusNoMemory;
    }
    if (out != nullptr) *out = id;
    return kStatusSuccess;
}

pelmoStatus pelmoQueue_Create(uint32_t* out) {
    const pelmoStatus status = create(out, false);
    if (status == kStatusSuccess) traceLine(kTraceQueue, "pelmoQueue_Create(%u)", *out);
    return status;
}

pelmoStatus pelmoQueue_CreateSynchronous(uint32_t* out) {
    const pelmoStatus status = create(out, true);
    if (status == kStatusSuccess) traceLine(kTraceQueue, "pelmoQueue_CreateSynchronous(%u)", *out);
    return status;
}

pelmoStatus queueFind(Held<Queue>& queue, uint32_t id) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    const pelmoStatus status = queue.findLocked(id);
    return status == kStatusSuccess ? kStatusSuccess : kStatusInvalidQueue;
}

uint32_t Queue_CountLocked(Queue* queue) {
    const LockGuard data(queue->dataLock);
    return queue->pending->count + queue->ready->count;
}

pelmoStatus pelmoQueue_GetCount(uint32_t queue, uint32_t* out) {
    traceLine(kTraceQueue, "pelmoQueue_GetCount(%u, %p)", queue, tracePointer(out));
    return readQueue(queue, out, [](Queue* of) PELMO_REQUIRES(of->header.lock) {
        return Queue_CountLocked(of);
    });
}

pelmoStatus pelmoQueue_GetHook(uint32_t queue, pelmoQueueHook* out) {
    traceLine(kTraceQueue, "pelmoQueue_GetHook(%u, %p)", queue, tracePointer(out));
    return readQueue(queue, out,
                     [](Queue* of) PELMO_REQUIRES(of->header.lock) { return of->hook; });
}

pelmoStatus pelmoQueue_GetName(uint32_t queue, const char** out) {
    traceLine(kTraceQueue, "pelmoQueue_GetName(%u, %p)", queue, tracePointer(out));
    return readQueue(queue, out,
                     [](Queue* of) PELMO_REQUIRES(of->header.lock) { return of->name; });
}

pelmoStatus pelmoQueue_SetName(uint32_t queue, const char* name) {
    traceLine(kTraceQueue, "pelmoQueue_SetName(%u, \"%s\")", queue, traceText(name));
    Held<Queue> held;
    if (const pelmoStatus status = queueFind(held, queue); status != kStatusSuccess) return status;
    if (name == nullptr) return kStatusInvalidArgument;
    char* copy = concat2(name, "");
    if (copy == nullptr) return kStatusNoMemory;
    if (held->nameOwned) std::free(const_cast<char*>(held->name));
    held->name = copy;
    held->nameOwned = true;
    return kStatusSuccess;
}

pelmoStatus pelmoQueue_GetPriority(uint32_t queue, uint32_t* out) {
    traceLine(kTraceQueue, "pelmoQueue_GetPriority(%u, %p)", queue, tracePointer(out));
    return readQueue(queue, out,
                     [](Queue* of) PELMO_REQUIRES(of->header.lock) { return of->priority; });
}
