// The queue's record. The calls stand in lib/runtime/queue.h; posting and dispatch work on the
// record.
//
// Two rings: posters push to `pending` under the object lock, a dispatch works through `ready`
// under the data lock alone, and they meet only where a dispatch that ran dry swaps the two. An
// entry is a message; `deliveryEvent` tells the event that fired, `deliveryClosure` its closure.
// The ring owns one reference to it.

#pragma once

#include <cstdint>

#include "lib/runtime/callbacks.h"
#include "lib/runtime/id.h"

struct Dpa;
struct EntryRing;

enum LimitPolicy : uint32_t {
    kLimitNone,
    kLimitDiscardNew,
    kLimitDiscardFirst,
    kLimitDiscardLast,
};

struct Queue {
    static constexpr IdType kIdType = IdType::kQueue;
    IdHeader header;

    // Constant after creation.
    bool synchronous;  // read by polls alone: no dispatch, hook, limit or group
    Cond cond;         // signalled at a post while `waiters` isn't 0
    Lock dataLock;

    // Guarded by the object lock.
    const char* name;
    bool nameOwned;      // on the heap
    EntryRing* pending;  // swapped with `ready` under both locks
    uint32_t waiters;    // threads in a wait on `cond`
    LimitPolicy limitPolicy;
    uint32_t priority;
    uint32_t maxEvents;      // 0: no limit
    uint32_t discardAmount;  // entries that one discard removes
    Dpa* groups;             // ids of the groups that hold this queue; null: none
    pelmoQueueHook hook;
    void* hookClosure;

    // Guarded by the data lock.
    EntryRing* ready;
    uint32_t dispatching;  // dispatch calls between taking entries and finishing
    pelmoQueueCompletion completion;
    void* completionClosure;
};
