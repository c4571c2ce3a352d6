// What the sources of queues, posting and group dispatch share; nobody else includes this.

#pragma once

#include <algorithm>
#include <cstdint>

#include "lib/containers/dpa.h"
#include "lib/runtime/event_object.h"
#include "lib/runtime/queue_object.h"

// The way into every public call: kStatusNotInitialized, kStatusInvalidQueue, or the queue, locked.
[[nodiscard]] pelmoStatus queueFind(Held<Queue>& queue, uint32_t id);

// Has the queue come to its limit? The caller holds the object lock, and no event's.
[[nodiscard]] bool queueIsFullLocked(Queue* queue);

// Tells of a limit that was met. The queue's lock is left for it and taken again: all that the lock
// guards may have changed meanwhile, and the queue be invalid.
void queueTellLimit(Held<Queue>& queue);

// The groups of a queue, as they were when this was made under its object lock, to be visited
// without it: a group's lock stands outside.
//
// Ids are copied 32 at a time, the last ones first, and the queue is asked again for what is left,
// so that a visit can't fail for want of memory. It misses no group: one that joins goes to the end
// and looks at the queue by itself, and one that leaves only brings the last one forward.
class QueueGroups {
  public:
    explicit QueueGroups(Queue* from) : queue(from) { takeLocked(); }

    // The caller holds a reference to the queue, and no lock.
    template <typename Visit>
    void forEach(Visit visit) {
        for (;;) {
            for (uint32_t i = 0; i < count; ++i)
                visit(ids[i]);
            if (left == 0) return;
            Id_Enter(&queue->header);
            takeLocked();
            Id_Leave(&queue->header);
        }
    }

  private:
    static constexpr uint32_t kAtATime = 32;

    void takeLocked() {
        left = std::min(left, queue->groups != nullptr ? queue->groups->count : 0);
        count = std::min(left, kAtATime);
        left -= count;
        for (uint32_t i = 0; i < count; ++i)
            ids[i] = idFromItem(queue->groups->items[left + i]);
    }

    Queue* const queue;
    uint32_t left = UINT32_MAX;  // ahead of those copied
    uint32_t count = 0;
    uint32_t ids[kAtATime];
};

// Look-ups of events for entries in a row: one for each run of the same id.
struct EventRun {
    Held<Event> event;  // holds nothing where there is none of that id
    uint32_t id = kNoId;

    // Null for an event that is gone; else good until the next call.
    [[nodiscard]] Event* find(uint32_t wanted) {
        if (id != wanted) {
            event.release();
            id = wanted;
            (void)event.get(id, IdAccess::kUnlocked);
        }
        return event && !Id_IsInvalid(&event->header) ? event.pointer() : nullptr;
    }
};
