#include "lib/base/lock.h"

#include <cassert>
#include <cstdlib>
#include <new>

#ifndef NDEBUG
#include <algorithm>
#include <cstdio>
#include <span>
#endif

#ifndef NDEBUG
namespace {

struct RankInfo {
    bool mayPair;
    const char* words;
};

#define LOCK_RANK_INFO(name, mayPair, words) {mayPair, words},
constexpr RankInfo kRanks[] = {PELMO_LOCK_RANK_TABLE(LOCK_RANK_INFO)};
#undef LOCK_RANK_INFO

const RankInfo& info(const Lock* lock) {
    return kRanks[static_cast<size_t>(lock->rank)];
}

struct HeldLock {
    const Lock* lock;
    uint32_t depth;
};

// What the thread holds, in the order of taking.
struct HeldLocks {
    HeldLock entries[64];
    size_t count;
};

thread_local HeldLocks heldLocks = {};

std::span<HeldLock> held() {
    return {heldLocks.entries, heldLocks.count};
}

[[noreturn]] void stop(const char* what, const Lock* lock, const Lock* outer) {
    std::fprintf(stderr, "lock order: %s '%s' (%p)", what, info(lock).words,
                 static_cast<const void*>(lock));
    if (outer != nullptr) {
        std::fprintf(stderr, " while holding '%s' (%p)", info(outer).words,
                     static_cast<const void*>(outer));
    }
    std::fputs("\n", stderr);
    std::abort();
}

HeldLock* heldFind(const Lock* lock) {
    const auto found = std::ranges::find(held(), lock, &HeldLock::lock);
    return found == held().end() ? nullptr : &*found;
}

// Before taking it, so that an inversion is reported even where it would hang.
void noteEnter(const Lock* lock) {
    if (HeldLock* again = heldFind(lock)) {
        ++again->depth;
        return;
    }
    for (const HeldLock& other : held()) {
        const bool ordered =
            other.lock->rank < lock->rank || (other.lock->rank == lock->rank && info(lock).mayPair);
        if (!ordered) stop("taking", lock, other.lock);
    }
    if (heldLocks.count == std::size(heldLocks.entries)) stop("no room to note", lock, nullptr);
    heldLocks.entries[heldLocks.count++] = {lock, 1};
}

void noteLeave(const Lock* lock) {
    HeldLock* entry = heldFind(lock);
    if (entry == nullptr) stop("leaving unheld", lock, nullptr);
    if (--entry->depth != 0) return;
    std::shift_left(entry, &*held().end(), 1);
    --heldLocks.count;
}

}  // namespace

bool lockHoldsBelow(LockRank rank) {
    return std::ranges::any_of(held(),
                               [rank](const HeldLock& each) { return each.lock->rank > rank; });
}
#else
namespace {

void noteEnter(const Lock*) {}
void noteLeave(const Lock*) {}

}  // namespace

bool lockHoldsBelow(LockRank) {
    return false;
}
#endif

pelmoStatus Lock_Init(Lock* lock, LockRank rank) {
    if (lock == nullptr) return kStatusInvalidArgument;

    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return kStatusNoMemory;
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int failed = pthread_mutex_init(&lock->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (failed != 0) return kStatusNoMemory;

    lock->flags = 0;
    lock->rank = rank;
    return kStatusSuccess;
}

pelmoStatus Lock_Create(Lock** out, LockRank rank) {
    if (out == nullptr) return kStatusInvalidArgument;
    void* block = std::malloc(sizeof(Lock));
    if (block == nullptr) return kStatusNoMemory;

    Lock* lock = new (block) Lock;
    const pelmoStatus status = Lock_Init(lock, rank);
    if (status != kStatusSuccess) {
        std::free(block);
        return status;
    }
    lock->flags = kRecordAllocated;
    *out = lock;
    return kStatusSuccess;
}

pelmoStatus Lock_Destroy(Lock* lock) {
    if (lock == nullptr) return kStatusInvalidArgument;
    [[maybe_unused]] const int failed = pthread_mutex_destroy(&lock->mutex);
    assert(failed == 0);  // held, or destroyed already
    if ((lock->flags & kRecordAllocated) != 0) std::free(lock);
    return kStatusSuccess;
}

void Lock_Enter(Lock* lock) PELMO_UNCHECKED_LOCKING {  // pthread's own calls have no annotations
    assert(lock != nullptr);
    noteEnter(lock);
    [[maybe_unused]] const int failed = pthread_mutex_lock(&lock->mutex);
    assert(failed == 0);
}

void Lock_Leave(Lock* lock) PELMO_UNCHECKED_LOCKING {
    assert(lock != nullptr);
    noteLeave(lock);
    [[maybe_unused]] const int failed = pthread_mutex_unlock(&lock->mutex);
    assert(failed == 0);
}
