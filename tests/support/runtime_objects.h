// The runtime without its threads: id tables, the open flag, and events that only a test fires.

#pragma once

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/pelmo/library_state.h"
#include "lib/runtime/dispatch_internal.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/post.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"
#include "tests/support/test.h"

inline std::vector<uint32_t> idsIn(const Dpa* list) {
    std::vector<uint32_t> ids;
    for (uint32_t i = 0; list != nullptr && i < list->count; ++i)
        ids.push_back(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(list->items[i])));
    return ids;
}

inline std::vector<uint32_t> idsOf(IdType type) {
    Dpa* const list = dpaCreate(1);
    EXPECT_TRUE(idTableList(type, list));
    const std::vector<uint32_t> ids = idsIn(list);
    dpaDestroy(list);
    return ids;
}

// A fixture: while it exists there are id tables and the library counts as open. It ends the
// objects that a test left, but not threads that use them.
// Tables of an open of the library, which stay for good, serve as well.
struct RuntimeTables : NoCopy {
    const bool areOwn = [] {
        const LockGuard guard(library.lock);
        return !library.tablesReady;
    }();

    RuntimeTables() {
        EXPECT_TRUE(!areOwn || idTablesCreate() == kStatusSuccess);
        libraryOpen = true;
    }
    ~RuntimeTables() {
        libraryOpen = false;
        for (const IdType type : kIdTypes) {
            for (const uint32_t id : idsOf(type)) {
                IdHeader* object = nullptr;
                EXPECT_EQ(Id_Get(id, type, &object, IdAccess::kDestroy), kStatusSuccess);
                Id_Release(object, false);
            }
        }
        if (areOwn) idTablesDestroy();
    }
};

inline uint32_t makeQueue(bool synchronous = false) {
    uint32_t queue = kNoId;
    EXPECT_EQ(Queue_Create(&queue, kNoId, "queue", false, synchronous), kStatusSuccess);
    return queue;
}

inline uint32_t makeGroup() {
    uint32_t group = kNoId;
    EXPECT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
    return group;
}

inline uint32_t countOf(uint32_t queue) {
    uint32_t count = UINT32_MAX;
    EXPECT_EQ(pelmoQueue_GetCount(queue, &count), kStatusSuccess);
    return count;
}

// Dispatches all entries of the queue; returns the number of steps.
inline uint32_t dispatchAll(uint32_t queue) {
    uint32_t steps = 0;
    while (pelmoQueue_TimedDispatch(queue, 0) == kStatusSuccess)
        ++steps;
    return steps;
}

// The record of an object that isn't destroyed.
template <typename Object>
Object* recordOf(uint32_t id) {
    Held<Object> held;
    EXPECT_EQ(held.find(id), kStatusSuccess);
    return held.get();
}

// Returns once so many threads wait on the queue or group.
template <typename Object>
void awaitWaiters(uint32_t id, int32_t count) {
    Held<Object> object;
    ASSERT_EQ(object.find(id), kStatusSuccess);
    for (bool all = false; !all; std::this_thread::yield()) {
        object.enter();
        all = object->cond.waiters == count;
        object.leave();
    }
}

// An event that only tests fire; the destructor destroys it if the test didn't. Other kinds are a
// listener's record with the kind changed.
struct TestEvent : NoCopy {
    uint32_t id = kNoId;
    Event* event = nullptr;

    TestEvent(pelmoEventKind kind, uint32_t queue, void* closure = nullptr) {
        EXPECT_EQ(Event_NewListener(&event,
                                    {.queueId = queue,
                                     .transportId = kIntraProcessTransportId,
                                     .subject = "A",
                                     .kind = ListenerKind::kPlain,
                                     .closure = closure},
                                    false, 4),
                  kStatusSuccess);
        event->kind = kind;
        EXPECT_EQ(Id_SetGlobal(&event->header, &id), kStatusSuccess);
        Id_AddRef(&event->header);
    }
    ~TestEvent() {
        destroy();
        Id_Release(&event->header, false);
    }

    void destroy() const { pelmoEvent_DestroyEx(id, nullptr); }

    // What a transport does with a listener's message before it posts.
    void deliver(pelmoMsg* message) const {
        Id_Enter(&event->header);
        EXPECT_TRUE(EntryRing_PushBack(event->listener.inbox, message));
        Id_Leave(&event->header);
    }
};

inline pelmoMsg* messageFor(uint32_t eventId) {
    pelmoMsg* message = nullptr;
    EXPECT_EQ(pelmoMsg_Create(&message), kStatusSuccess);
    message->deliveryEvent = eventId;
    return message;
}

// Posts a new message for each of the events, all together.
inline std::vector<const pelmoMsg*> postBatch(uint32_t queue, const std::vector<uint32_t>& events) {
    std::vector<PostEntry> batch;
    std::vector<const pelmoMsg*> messages;
    for (const uint32_t event : events) {
        batch.push_back({event, messageFor(event)});
        messages.push_back(batch.back().message);
    }
    Queue_PostBatch(queue, batch);
    return messages;
}

// The entries that wait on a queue, in order of dispatch. They still belong to the queue.
inline std::vector<const pelmoMsg*> entriesOf(uint32_t queueId) {
    std::vector<const pelmoMsg*> entries;
    Held<Queue> queue;
    EXPECT_EQ(queue.findLocked(queueId), kStatusSuccess);
    for (const EntryRing* ring : {queue->ready, queue->pending}) {
        for (uint32_t place = 0; place < ring->count; ++place) {
            const void* entry = ring->slots[EntryRing_Slot(ring, place)];
            entries.push_back(static_cast<const pelmoMsg*>(entry));
        }
    }
    return entries;
}

// Is the lock free of the caller's hold? Tested on a thread of its own, which waits for others that
// hold it for a moment.
inline bool isFree(Lock& lock) {
    bool free = false;
    std::thread([&] {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 5;
        free = pthread_mutex_timedlock(&lock.mutex, &deadline) == 0;
        if (free) pthread_mutex_unlock(&lock.mutex);
    }).join();
    return free;
}

// The hook of a queue: counts its calls, and finds each transport's lock free meanwhile.
inline void expectTransportsFree(uint32_t, void* calls) {
    ++*static_cast<uint32_t*>(calls);
    for (const uint32_t id : idsOf(IdType::kTransport)) {
        IdHeader* transport = nullptr;
        ASSERT_EQ(Id_Get(id, IdType::kTransport, &transport, IdAccess::kUnlocked), kStatusSuccess);
        EXPECT_TRUE(isFree(transport->lock)) << id;
        Id_Release(transport, false);
    }
}
