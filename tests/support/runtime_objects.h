// The runtime without its threads: tables of ids, an open flag, and events that nothing fires.

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "lib/containers/entry_ring.h"
#include "lib/msg/message.h"
#include "lib/runtime/event_object.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue.h"

// For as long as it exists there are tables and the library counts as open. Objects end before it.
struct RuntimeTables {
    RuntimeTables() {
        EXPECT_EQ(idTablesCreate(), kStatusSuccess);
        libraryOpen = true;
    }
    ~RuntimeTables() {
        libraryOpen = false;
        idTablesDestroy();
    }
    RuntimeTables(const RuntimeTables&) = delete;
    RuntimeTables& operator=(const RuntimeTables&) = delete;
};

// An event of its own, destroyed with this at the latest. A listener has an inbox.
struct TestEvent {
    Event* event = static_cast<Event*>(std::calloc(1, sizeof(Event)));
    uint32_t id = kNoId;

    TestEvent(EventKind kind, uint32_t queueId, void* closure = nullptr) {
        event->kind = kind;
        event->queueId = queueId;
        event->closure = closure;
        if (kind == kEventListener) {
            event->listener.inbox = EntryRing_Create(4);
            event->listener.transportId = kIntraProcessTransportId;
        }
        EXPECT_EQ(Id_Init(&event->header, IdType::kEvent, destruct), kStatusSuccess);
        EXPECT_EQ(Id_SetGlobal(&event->header, &id), kStatusSuccess);
        Id_AddRef(&event->header);
    }
    ~TestEvent() {
        destroy();
        Id_Release(&event->header, false);
    }
    TestEvent(const TestEvent&) = delete;
    TestEvent& operator=(const TestEvent&) = delete;

    void destroy() {
        Held<Event> held;
        (void)held.get(id, IdAccess::kDestroy);
    }

    // What a transport does that has a message for a listener, ahead of posting.
    void deliver(pelmoMsg* message) {
        Id_Enter(&event->header);
        EXPECT_TRUE(EntryRing_PushBack(event->listener.inbox, message));
        Id_Leave(&event->header);
    }

  private:
    static void destruct(IdHeader* object) {
        auto* ended = reinterpret_cast<Event*>(object);
        if (EntryRing* inbox = ended->listener.inbox) {
            while (void* message = EntryRing_PopFront(inbox)) {
                msgRelease(static_cast<pelmoMsg*>(message));
            }
            EntryRing_Destroy(inbox);
        }
        std::free(ended);
    }
};

inline pelmoMsg* messageFor(uint32_t eventId) {
    pelmoMsg* message = nullptr;
    EXPECT_EQ(pelmoMsg_Create(&message), kStatusSuccess);
    message->deliveryEvent = eventId;
    return message;
}

inline uint32_t makeQueue(bool synchronous = false) {
    uint32_t queue = kNoId;
    EXPECT_EQ(Queue_Create(&queue, kNoId, "queue", false, synchronous), kStatusSuccess);
    return queue;
}

// The record, for as long as the queue isn't destroyed.
inline Queue* recordOf(uint32_t queue) {
    Held<Queue> held;
    EXPECT_EQ(held.get(queue, IdAccess::kUnlocked), kStatusSuccess);
    return held.pointer();
}

// The entries that wait on a queue, in order of dispatch. They stay the queue's.
inline std::vector<const pelmoMsg*> entriesOf(uint32_t queueId) {
    std::vector<const pelmoMsg*> entries;
    Held<Queue> queue;
    EXPECT_EQ(queue.get(queueId, IdAccess::kLocked), kStatusSuccess);
    for (const EntryRing* ring : {queue->ready, queue->pending}) {
        for (uint32_t place = 0; place < ring->count; ++place) {
            const void* entry = ring->slots[EntryRing_Slot(ring, place)];
            entries.push_back(static_cast<const pelmoMsg*>(entry));
        }
    }
    return entries;
}

// Is the lock free? Asked of a thread that holds nothing, as the asker may hold it itself.
inline bool isFree(Lock& lock) {
    bool free = false;
    std::thread([&] {
        free = pthread_mutex_trylock(&lock.mutex) == 0;
        if (free) pthread_mutex_unlock(&lock.mutex);
    }).join();
    return free;
}
