// A queue's hook: its setting, and its runs, for which a destroy's completion waits as it does for
// dispatches.

#include <cassert>
#include <utility>

#include "lib/msg/trace_ops.h"
#include "lib/runtime/queue_internal.h"

namespace {

// The calling thread's own runs continue with the hook that it has just set: the former closure may
// be gone when they return. True if there are such runs.
bool replaceInOwnRunsLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock) {
    bool hasOwn = false;
    for (HookRun* run = queue->hookRuns; run != nullptr; run = run->next) {
        if (pthread_equal(run->thread, pthread_self()) == 0) continue;
        run->hook = queue->hook;
        run->closure = queue->hookClosure;
        hasOwn = true;
    }
    return hasOwn;
}

bool hasRunBeforeLocked(const Queue* queue, uint64_t change) PELMO_REQUIRES(queue->header.lock) {
    for (const HookRun* run = queue->hookRuns; run != nullptr; run = run->next) {
        if (run->change < change) return true;
    }
    return false;
}

// Runs of the hook that was just set may begin meanwhile, and aren't waited for.
void awaitFormerRunsLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock) {
    const uint64_t change = queue->hookChange;
    while (hasRunBeforeLocked(queue, change)) {
        ++queue->hookWaiters;
        Id_Wait(&queue->header, &queue->hookEnded);
        --queue->hookWaiters;
    }
}

void takeOffLocked(Queue* queue, const HookRun& run) PELMO_REQUIRES(queue->header.lock) {
    HookRun** link = &queue->hookRuns;
    while (*link != &run)
        link = &(*link)->next;
    *link = run.next;
    if (queue->hookWaiters != 0) Cond_Broadcast(&queue->hookEnded);
}

}  // namespace

pelmoStatus pelmoQueue_SetHook(uint32_t queue, pelmoQueueHook hook, void* closure) {
    traceLine(kTraceQueue, "pelmoQueue_SetHook(%u, %p, %p)", queue,
              reinterpret_cast<const void*>(hook), tracePointer(closure));
    Held<Queue> held;
    if (const pelmoStatus status = queueFind(held, queue); status != kStatusSuccess) return status;
    if (held->synchronous) return kStatusNotPermitted;
    held->hook = hook;
    held->hookClosure = closure;
    ++held->hookChange;
    if (!replaceInOwnRunsLocked(held.get())) awaitFormerRunsLocked(held.get());
    return kStatusSuccess;
}

bool hookBeginLocked(Queue* queue, HookRun& run) {
    if (queue->hook == nullptr) return false;
    run = {.next = queue->hookRuns,
           .change = queue->hookChange,
           .thread = pthread_self(),
           .hook = queue->hook,
           .closure = queue->hookClosure};
    queue->hookRuns = &run;
    const LockGuard data(queue->dataLock);
    ++queue->running;
    return true;
}

void hookRun(Queue* queue, HookRun& run, uint32_t times) {
    assert(!lockHoldsBelow(LockRank::kLibrary));  // it may make any call
    for (uint32_t i = 0; i < times && run.hook != nullptr; ++i)
        run.hook(queue->header.id, run.closure);
    Id_Enter(&queue->header);
    takeOffLocked(queue, run);
    Id_Leave(&queue->header);
    QueueEnd end{};
    {
        const LockGuard data(queue->dataLock);
        end = queueFinishLocked(queue);
    }
    end.call(queue->header.id);
}

QueueEnd queueFinishLocked(Queue* queue) {
    if (--queue->running != 0) return {};
    return {std::exchange(queue->completion, nullptr), queue->completionClosure};
}
