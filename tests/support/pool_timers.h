// Fake timers for the pools' freeing of idle blocks, fired by hand; installed while the object
// exists. Only one at a time.

#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "lib/base/lock.h"
#include "lib/msg/pool.h"
#include "tests/support/test.h"

// Its lock ranks before those of the pools, as the runtime's locks do: a debug build stops if it is
// taken with a pool's lock held.
struct PoolTimers : NoCopy {
    struct Row {
        uint32_t queue;
        double seconds;
        void (*callback)(uint32_t, pelmoMsg*, void*);
        void* closure;
        void (*completion)(uint32_t, void*);  // null while the timer exists
    };

    PoolTimers() {
        current = this;
        poolTimerOps = {
            .create =
                [](uint32_t* out, uint32_t queue, auto callback, double seconds, void* closure) {
                    return current->create(out, {queue, seconds, callback, closure, nullptr});
                },
            .destroyEx = [](uint32_t timer, auto done) { return current->destroyEx(timer, done); },
        };
    }
    ~PoolTimers() { poolTimerOps = {}; }

    pelmoStatus create(uint32_t* out, const Row& row) {
        const LockGuard guard(lock);
        if (failAt-- == 0) return kStatusInvalidQueue;
        rows.push_back(row);
        *out = kFirstId + static_cast<uint32_t>(rows.size()) - 1;
        if (whileCreating != nullptr) whileCreating();
        return kStatusSuccess;
    }
    pelmoStatus destroyEx(uint32_t timer, void (*completion)(uint32_t, void*)) {
        const LockGuard guard(lock);
        if (refuseToDestroy) return kStatusInvalidEvent;
        rows.at(timer - kFirstId).completion = completion;
        if (!late) complete(timer);
        return kStatusSuccess;
    }
    void complete(uint32_t timer) {
        const Row& row = rows.at(timer - kFirstId);
        row.completion(timer, row.closure);
    }
    void tick() {
        for (const Row& row : rows) {
            if (row.completion == nullptr) row.callback(kFirstId, nullptr, row.closure);
        }
    }
    long alive() const { return std::ranges::count(rows, nullptr, &Row::completion); }

    static constexpr uint32_t kFirstId = 1001;
    static inline PoolTimers* current = nullptr;
    Lock lock = PELMO_LOCK_READY(LockRank::kEventManager);
    std::vector<Row> rows;
    int failAt = -1;               // which create fails
    bool late = false;             // completions are deferred to complete()
    bool refuseToDestroy = false;  // destroyEx fails
    void (*whileCreating)() = nullptr;
};
