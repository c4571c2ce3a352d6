// Ids: how callers hold queues, events, queue groups, transports and dispatchers. A caller gets no
// pointer; one look-up of a 32-bit id gives a counted reference and, on request, the object's lock
// held.
//
// Every such object begins with an IdHeader. Its life:
//
//     initialised   Id_Init: one reference, the base reference, and no id
//     published     Id_SetGlobal, Id_SetFixed: Id_Get finds it
//     invalid       Id_Get with kDestroy, Id_Invalidate: the id is gone, references stay
//     destructed    the last reference is gone: the destructor frees it
//
// Id space: 0 is no object; 1 to 1000 are chosen by their owners (lib/runtime/fixed_ids_internal.h)
// and unique within a type; from 1001 on ids are counted up and unique across types, over closes
// and opens of the library. When the counter has wrapped, ids in use are passed over.
//
// Ownership: the tables hold no reference of their own; the base reference is theirs. Each
// successful Id_Get and Id_AddRef is matched by one Id_Release.
//
// Failure: kStatusNotInitialized before there are tables (kStatusInvalidArgument from Id_Check and
// Id_Release), kStatusInvalidType for an id of another type, kStatusNotFound for none,
// kStatusNoMemory. A failed Id_Get holds nothing. Callers answer with the status of their own kind.
//
// Threads: any. Order of locks: an object's, a queue's data lock, a table's, the id lock. A table's
// lock is held for one dictionary operation, never while an object's is taken.

#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/status.h"
#include "lib/runtime/fixed_ids_internal.h"

struct Dpa;
struct IdHeader;

// Order and numbers are those that callers meet.
enum class IdType : uint32_t { kEvent = 1, kQueue, kQueueGroup, kTransport, kDispatcher };

// Frees what the object holds and the object itself.
using IdDestructor = void (*)(IdHeader* object);

inline constexpr uint32_t kIdInvalid = 2;  // in `flags`

struct IdHeader {
    // Written under `lock`, and under `flagLock` if there is one. Atomic, because a dispatcher's
    // thread looks at it with neither; it orders nothing.
    std::atomic<uint32_t> flags;

    // Constant once published.
    IdType type;
    uint32_t id;  // 0 until assigned
    IdDestructor destructor;
    Lock* flagLock;  // a queue's data lock, which those hold who dispatch; null for other types

    std::atomic<int32_t> refCount;
    Lock lock;
};

// Tables. Made before other threads run; no thread uses ids while they are destroyed.

[[nodiscard]] pelmoStatus idTablesCreate();
void idTablesDestroy();

// Appends the ids of all objects of a type. False without memory.
[[nodiscard]] bool idTableList(IdType type, Dpa* ids);

// Life

// kStatusNoMemory, which is logged, when the system gives no lock.
[[nodiscard]] pelmoStatus Id_Init(IdHeader* object, IdType type, IdDestructor destructor);

// kStatusNoMemory, which is logged, also when no id is free. The new id goes into the header, and
// to `outId` unless that is null.
[[nodiscard]] pelmoStatus Id_SetGlobal(IdHeader* object, uint32_t* outId);

// kStatusInvalidArgument for a number above 1000; kStatusNotPermitted for one that is taken and
// kStatusNoMemory, both logged.
[[nodiscard]] pelmoStatus Id_SetFixed(IdHeader* object, uint32_t id);

// For a creation that failed halfway: takes the id away and marks the object invalid. Where this
// succeeded the caller releases the base reference, which is left alone here.
[[nodiscard]] pelmoStatus Id_Invalidate(IdHeader* object);

// Look-up

enum class IdAccess {
    kUnlocked,  // doesn't wait for the holder of the object's lock
    kLocked,    // on return the object's lock is held
    kDestroy,   // takes id and base reference away: only one of many racing callers succeeds
    kDestroyLocked,
};

[[nodiscard]] pelmoStatus Id_Get(uint32_t id, IdType type, IdHeader** out, IdAccess access);
pelmoStatus Id_Release(IdHeader* object, bool unlock);
void Id_AddRef(IdHeader* object);

// Takes no reference.
[[nodiscard]] pelmoStatus Id_Check(uint32_t id, IdType type);

[[nodiscard]] inline uint32_t Id_Number(const IdHeader* object) {
    return object != nullptr ? object->id : kNoId;
}
[[nodiscard]] inline bool Id_IsInvalid(const IdHeader* object) {
    return object == nullptr || (object->flags.load(std::memory_order_relaxed) & kIdInvalid) != 0;
}

// Lists of ids are arrays of pointer-sized values.
[[nodiscard]] inline uint32_t idFromItem(const void* item) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(item));
}
[[nodiscard]] inline void* idToItem(uint32_t id) {
    return reinterpret_cast<void*>(uintptr_t{id});
}

// The object's lock; null is ignored.
void Id_Enter(IdHeader* object) PELMO_ACQUIRE(object->lock);
void Id_Leave(IdHeader* object) PELMO_RELEASE(object->lock);

// As Cond_Wait and Cond_TimedWait with the object's lock, which the caller holds.
pelmoStatus Id_Wait(IdHeader* object, Cond* cond);
[[nodiscard]] pelmoStatus Id_TimedWait(IdHeader* object, Cond* cond, double seconds);

// A reference, and maybe the lock, to the end of the scope. `Object` has its IdHeader as its first
// member `header`, and its type as `kIdType`.
//
// Whether the lock is held is known at run time alone. The checker takes it for held from
// findLocked, destroyLocked or enter on, up to leave; that it was found is for the caller to see
// to.
template <typename Object>
class Held {
  public:
    Held() = default;
    ~Held() { release(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    // Look-ups, as Id_Get. Nothing may be held before the call; after a failure nothing is held.
    [[nodiscard]] pelmoStatus find(uint32_t id) { return lookUp(id, IdAccess::kUnlocked); }
    [[nodiscard]] pelmoStatus findLocked(uint32_t id) PELMO_ASSERTS((*this)->header.lock) {
        return lookUp(id, IdAccess::kLocked);
    }
    [[nodiscard]] pelmoStatus destroy(uint32_t id) { return lookUp(id, IdAccess::kDestroy); }
    [[nodiscard]] pelmoStatus destroyLocked(uint32_t id) PELMO_ASSERTS((*this)->header.lock) {
        return lookUp(id, IdAccess::kDestroyLocked);
    }

    // Takes over a reference of the caller's, unlocked; holds nothing before.
    void adopt(Object* other) { object = other; }

    // One reference more on an object; holds nothing before.
    void share(Object* other) {
        Id_AddRef(&other->header);
        object = other;
    }

    // Unchecked: within, the lock goes by the name of the member.
    void enter() PELMO_ASSERTS((*this)->header.lock) PELMO_UNCHECKED_LOCKING {
        Id_Enter(&object->header);
        locked = true;
    }
    void leave() PELMO_RELEASE((*this)->header.lock) PELMO_UNCHECKED_LOCKING {
        locked = false;
        Id_Leave(&object->header);
    }

    // Gives back what is held, if anything.
    void release() {
        if (object == nullptr) return;
        Object* const held = std::exchange(object, nullptr);
        Id_Release(&held->header, std::exchange(locked, false));
    }

    // Hands the reference to the caller; the lock isn't held.
    [[nodiscard]] Object* take() { return std::exchange(object, nullptr); }

    Object* operator->() const { return object; }
    [[nodiscard]] Object* get() const { return object; }
    explicit operator bool() const { return object != nullptr; }

  private:
    [[nodiscard]] pelmoStatus lookUp(uint32_t id, IdAccess access) {
        IdHeader* found = nullptr;
        const pelmoStatus status = Id_Get(id, Object::kIdType, &found, access);
        if (status != kStatusSuccess) return status;
        object = reinterpret_cast<Object*>(found);
        locked = access == IdAccess::kLocked || access == IdAccess::kDestroyLocked;
        return kStatusSuccess;
    }

    Object* object = nullptr;
    bool locked = false;
};

// The counter of global ids. Only this module uses it, and tests, which shrink the id space to make
// it wrap or run out, and restore it.
struct IdCounter {
    uint32_t first = kFirstGlobalId;
    uint32_t last = UINT32_MAX;
    uint32_t previous = kLastFixedId;  // the id last given out
    bool wrapped = false;  // an id may be in use, so each is looked up before it is given out
};

// Guards what all types share: the counter and the global ids in use.
extern constinit Lock idLock;

// It outlives the id tables.
extern constinit IdCounter idCounter PELMO_GUARDED_BY(idLock);
