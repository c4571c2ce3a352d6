#include "lib/runtime/timers.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/post.h"

namespace {

constexpr double kLongestWaitSeconds = 60.0;
constexpr double kMostIntervalsBehind = 100.0;
constexpr uint32_t kBatchTimers = 32;
constexpr uint32_t kFirstCapacity = 8;

// The time is kept beside the event, so that ordering doesn't touch the events.
struct Slot {
    double expiry;
    Event* event;
};

struct ArmedTimers {
    Slot* slots;  // a heap of kChildren: no slot comes after its children
    uint32_t count;
    uint32_t capacity;
    bool waiting;  // the timer thread is in its wait
    Cond* wake;    // null: not open
};

constinit ArmedTimers armed PELMO_GUARDED_BY(evmLock) = {};

// Four children of each slot: half the depth of two, and those compared are adjacent.
constexpr uint32_t kChildren = 4;

bool comesFirst(const Slot& a, const Slot& b) {
    return a.expiry < b.expiry || (a.expiry == b.expiry && a.event < b.event);
}

void putLocked(uint32_t index, const Slot& slot) PELMO_REQUIRES(evmLock) {
    armed.slots[index] = slot;
    slot.event->timer.place = index + 1;
}

// The slot at `index` is free: moves parents down into it until `slot` fits there.
void siftUpLocked(uint32_t index, const Slot& slot) PELMO_REQUIRES(evmLock) {
    while (index > 0) {
        const uint32_t parent = (index - 1) / kChildren;
        if (!comesFirst(slot, armed.slots[parent])) break;
        putLocked(index, armed.slots[parent]);
        index = parent;
    }
    putLocked(index, slot);
}

// The same with children that move up.
void siftDownLocked(uint32_t index, const Slot& slot) PELMO_REQUIRES(evmLock) {
    for (;;) {
        const uint32_t first = index * kChildren + 1;
        if (first >= armed.count) break;
        const Slot* const children = armed.slots + first;
        const Slot* const soonest = std::min_element(
            children, children + std::min(kChildren, armed.count - first), comesFirst);
        if (!comesFirst(*soonest, slot)) break;
        const auto next = static_cast<uint32_t>(soonest - armed.slots);
        putLocked(index, *soonest);
        index = next;
    }
    putLocked(index, slot);
}

bool makeRoomLocked() PELMO_REQUIRES(evmLock) {
    if (armed.count < armed.capacity) return true;
    if (armed.capacity > UINT32_MAX / 2) return false;
    const uint32_t capacity = armed.capacity * 2;
    void* const block = std::realloc(armed.slots, size_t{capacity} * sizeof(Slot));
    if (block == nullptr) return false;
    armed.slots = static_cast<Slot*>(block);
    armed.capacity = capacity;
    return true;
}

// The caller owns the reference afterwards.
void takeOutLocked(Event* event) PELMO_REQUIRES(evmLock) {
    const uint32_t index = event->timer.place - 1;
    event->timer.place = 0;
    const Slot last = armed.slots[--armed.count];
    if (last.event == event) return;
    if (index > 0 && comesFirst(last, armed.slots[(index - 1) / kChildren])) {
        siftUpLocked(index, last);
    } else {
        siftDownLocked(index, last);
    }
}

pelmoStatus insertLocked(Event* event) PELMO_REQUIRES(evmLock) {
    if (!evmRuns()) return kStatusNotInitialized;
    // A destroy marks the event before it takes it out of here under the lock: it would miss one
    // that came later, and leave it armed for an interval of any length.
    if (Id_IsInvalid(&event->header)) return kStatusInvalidEvent;
    if (event->timer.place != 0) return kStatusSuccess;
    if (!makeRoomLocked()) return kStatusNoMemory;

    siftUpLocked(armed.count++, {event->timer.nextExpiry, event});
    Id_AddRef(&event->header);
    if (event->timer.place == 1) timersWakeLocked();
    return kStatusSuccess;
}

double intervalOf(const Event* event) {
    return event->timer.interval.load(std::memory_order_relaxed);
}

pelmoStatus armLocked(Event* event) PELMO_REQUIRES(evmLock) {
    event->timer.nextExpiry = clockSteadySeconds() + intervalOf(event);
    return insertLocked(event);
}

double untilSoonestLocked(double now) PELMO_REQUIRES(evmLock) {
    if (armed.count == 0) return kLongestWaitSeconds;
    return std::min(kLongestWaitSeconds, armed.slots[0].expiry - now);
}

// Takes what is due out, with its next expiry set.
uint32_t collectLocked(double now, Event* (&batch)[kBatchTimers]) PELMO_REQUIRES(evmLock) {
    uint32_t count = 0;
    while (count < kBatchTimers && armed.count != 0 && !(armed.slots[0].expiry > now)) {
        Event* const event = armed.slots[0].event;
        const double interval = intervalOf(event);
        const double expiry = event->timer.nextExpiry;
        const bool tooLate = now > expiry + kMostIntervalsBehind * interval;
        takeOutLocked(event);
        event->timer.nextExpiry = (tooLate ? now : expiry) + interval;
        batch[count++] = event;
    }
    return count;
}

}  // namespace

pelmoStatus Timer_Arm(Event* event) {
    LockGuard guard(evmLock);
    return armLocked(event);
}

pelmoStatus Timer_Insert(Event* event) {
    LockGuard guard(evmLock);
    return insertLocked(event);
}

pelmoStatus Timer_Remove(Event* event) {
    {
        LockGuard guard(evmLock);
        if (!evmRuns()) return kStatusNotInitialized;
        if (event->timer.place == 0) return kStatusInvalidArgument;
        takeOutLocked(event);
    }
    Id_Release(&event->header, false);
    return kStatusSuccess;
}

pelmoStatus Timer_Reset(Event* event, double intervalSeconds) {
    Id_Enter(&event->header);
    event->timer.interval.store(intervalSeconds, std::memory_order_relaxed);
    Id_Leave(&event->header);

    LockGuard guard(evmLock);
    if (!evmRuns()) return kStatusNotInitialized;
    if (event->timer.place == 0) {
        event->timer.nextExpiry = clockSteadySeconds() + intervalSeconds;
        return kStatusSuccess;
    }
    // Its place is free again, and the caller's reference replaces the one that is released.
    takeOutLocked(event);
    Id_Release(&event->header, false);
    return armLocked(event);
}

pelmoStatus timersOpenLocked() {
    armed = {};
    armed.slots = static_cast<Slot*>(std::malloc(kFirstCapacity * sizeof(Slot)));
    if (armed.slots == nullptr) return kStatusNoMemory;
    armed.capacity = kFirstCapacity;
    return Cond_Create(&armed.wake);
}

void timersCloseLocked() {
    for (uint32_t i = 0; i < armed.count; ++i) {
        armed.slots[i].event->timer.place = 0;
        Id_Release(&armed.slots[i].event->header, false);
    }
    std::free(armed.slots);
    if (armed.wake != nullptr) Cond_Destroy(armed.wake);
    armed = {};
}

void timersWakeLocked() {
    if (armed.waiting) Cond_Signal(armed.wake);
}

bool timersAreAwaitedLocked() {
    return armed.waiting;
}

bool timersAwait(uint32_t epoch, double* outNow) {
    LockGuard guard(evmLock);
    if (!evmIsAt(epoch)) return false;
    double now = clockSteadySeconds();
    const double seconds = untilSoonestLocked(now);
    if (seconds > 0) {
        armed.waiting = true;
        const pelmoStatus status = Cond_TimedWait(armed.wake, &evmLock, seconds);
        if (!evmIsAt(epoch)) return false;
        armed.waiting = false;
        // The clock isn't asked again: cut to milliseconds, it may not have come to the expiry yet,
        // and the thread would go round until it has.
        if (status == kStatusTimeout) now += seconds;
    }
    *outNow = now;
    return true;
}

uint32_t timersFire(uint32_t epoch, double now) {
    Event* batch[kBatchTimers];
    uint32_t count = 0;
    {
        LockGuard guard(evmLock);
        if (evmIsAt(epoch)) count = collectLocked(now, batch);
    }
    // A timer that can't be posted isn't armed again.
    Event_PostEach({batch, count});
    for (uint32_t i = 0; i < count; ++i) {
        Id_Release(&batch[i]->header, false);
    }
    return count;
}
