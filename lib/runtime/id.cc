#include "lib/runtime/id.h"

#include "lib/base/log.h"
#include "lib/containers/dict.h"
#include "lib/containers/dpa.h"

constinit Lock idLock = PELMO_LOCK_READY(LockRank::kId);
constinit IdCounter idCounter;

namespace {

constexpr size_t kTypes = 5;
constexpr uint32_t kGlobalBuckets = 32;

struct IdTable {
    Lock lock = PELMO_LOCK_READY(LockRank::kIdTable);
    Dict32* objects PELMO_GUARDED_BY(lock) = nullptr;  // id to IdHeader
};

struct IdState {
    std::atomic<bool> ready{false};  // the tables are there; orders nothing
    IdTable tables[kTypes];
    Dict32* globalIds PELMO_GUARDED_BY(idLock) = nullptr;  // those in use, to their types
};

constinit IdState state;

struct TypeInfo {
    LockRank rank;
    uint32_t buckets;
};

// By type, from IdType::kEvent.
constexpr TypeInfo kTypeInfo[kTypes] = {
    {LockRank::kEventObject, 8},     {LockRank::kQueueObject, 4},      {LockRank::kGroupObject, 2},
    {LockRank::kTransportObject, 2}, {LockRank::kDispatcherObject, 2},
};

size_t typeIndex(IdType type) {
    return static_cast<size_t>(type) - 1;
}

IdTable& tableOf(IdType type) {
    return state.tables[typeIndex(type)];
}

void* typeMark(IdType type) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(type));
}

uint32_t idAfterLocked(uint32_t id) PELMO_REQUIRES(idLock) {
    return id == idCounter.last ? idCounter.first : id + 1;
}

// The next free number of the counter, 0 if there is none. No search until it has wrapped once.
uint32_t nextFreeLocked() PELMO_REQUIRES(idLock) {
    if (idCounter.previous == idCounter.last) idCounter.wrapped = true;
    const uint32_t begin = idCounter.previous = idAfterLocked(idCounter.previous);
    if (!idCounter.wrapped) return begin;

    uint32_t id = begin;
    while (dict32Find(state.globalIds, id, nullptr) == kStatusSuccess) {
        id = idAfterLocked(id);
        if (id == begin) return kNoId;
    }
    return idCounter.previous = id;
}

pelmoStatus takeGlobalId(IdType type, uint32_t& id) {
    const LockGuard guard(idLock);
    if (state.globalIds == nullptr) return kStatusNotInitialized;
    id = nextFreeLocked();
    if (id == kNoId) return kStatusNoMemory;
    return dict32Insert(state.globalIds, id, typeMark(type));
}

void giveGlobalId(uint32_t id) {
    if (id <= kLastFixedId) return;
    const LockGuard guard(idLock);
    dict32Remove(state.globalIds, id, nullptr);
}

pelmoStatus publish(IdHeader* object, uint32_t id) {
    IdTable& table = tableOf(object->type);
    const LockGuard guard(table.lock);
    if (table.objects == nullptr) return kStatusNotInitialized;
    const pelmoStatus status = dict32Insert(table.objects, id, object);
    // Before the lock is released: whatever finds the object finds it with its number.
    if (status == kStatusSuccess) object->id = id;
    return status;
}

// Takes the object's id out of its table, but never that of another that was given the number
// meanwhile.
pelmoStatus withdraw(IdHeader* object) {
    IdTable& table = tableOf(object->type);
    const LockGuard guard(table.lock);
    if (table.objects == nullptr) return kStatusNotInitialized;
    void* found = nullptr;
    if (dict32Find(table.objects, object->id, &found) != kStatusSuccess || found != object) {
        return kStatusInvalidArgument;
    }
    return dict32Remove(table.objects, object->id, nullptr);
}

// One reference more, unless the last one has just gone: an object that was never destroyed is in
// its table until its release has taken it out.
bool addRefUnlessGone(IdHeader* object) {
    int32_t count = object->refCount.load(std::memory_order_relaxed);
    while (count > 0) {
        if (object->refCount.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

// A failed look-up holds nothing; a found object has one reference more.
pelmoStatus lookUp(uint32_t id, IdType type, IdHeader** out) {
    IdTable& table = tableOf(type);
    const LockGuard guard(table.lock);
    if (table.objects == nullptr) return kStatusNotInitialized;
    void* found = nullptr;
    if (dict32Find(table.objects, id, &found) != kStatusSuccess) return kStatusNotFound;
    auto* object = static_cast<IdHeader*>(found);
    if (!addRefUnlessGone(object)) return kStatusNotFound;
    *out = object;
    return kStatusSuccess;
}

// The status for an id that isn't in the table of its type. A global id may be in the table of
// another type. A fixed one may be in several, and says nothing about the others.
pelmoStatus missStatus(uint32_t id, IdType type) {
    const LockGuard guard(idLock);
    void* mark = nullptr;
    if (dict32Find(state.globalIds, id, &mark) != kStatusSuccess) return kStatusNotFound;
    return mark == typeMark(type) ? kStatusNotFound : kStatusInvalidType;
}

// The flag changes with both of the locks held under which it is looked at.
void markInvalid(IdHeader* object) PELMO_UNCHECKED_LOCKING {  // a lock that only queues have
    if (object->flagLock != nullptr) Lock_Enter(object->flagLock);
    object->flags.fetch_or(kIdInvalid, std::memory_order_relaxed);
    if (object->flagLock != nullptr) Lock_Leave(object->flagLock);
}

// The caller holds the object's lock, and a reference that keeps it alive past the base one's end.
bool destroyLocked(IdHeader* object) {
    if (Id_IsInvalid(object) || withdraw(object) != kStatusSuccess) return false;
    giveGlobalId(object->id);
    markInvalid(object);
    object->refCount.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

}  // namespace

pelmoStatus idTablesCreate() {
    bool whole = true;
    for (size_t i = 0; i < kTypes; ++i) {
        const LockGuard guard(state.tables[i].lock);
        state.tables[i].objects = dict32Create(kTypeInfo[i].buckets);
        whole &= state.tables[i].objects != nullptr;
    }
    {
        const LockGuard guard(idLock);
        state.globalIds = dict32Create(kGlobalBuckets);
        whole &= state.globalIds != nullptr;
    }
    state.ready.store(whole, std::memory_order_relaxed);
    if (whole) return kStatusSuccess;
    idTablesDestroy();
    return kStatusNoMemory;
}

void idTablesDestroy() {
    state.ready.store(false, std::memory_order_relaxed);
    for (IdTable& table : state.tables) {
        const LockGuard guard(table.lock);
        dict32Destroy(std::exchange(table.objects, nullptr));
    }
    const LockGuard guard(idLock);
    dict32Destroy(std::exchange(state.globalIds, nullptr));
}

bool idTableList(IdType type, Dpa* ids) {
    IdTable& table = tableOf(type);
    const LockGuard guard(table.lock);
    if (table.objects == nullptr) return true;
    Dict32Iterator iterator;
    dict32IterInit(table.objects, &iterator);
    uint32_t id;
    while (dict32IterNext(&iterator, &id, nullptr)) {
        if (!dpaAppend(ids, reinterpret_cast<void*>(uintptr_t{id}))) return false;
    }
    return true;
}

pelmoStatus Id_Init(IdHeader* object, IdType type, IdDestructor destructor) {
    const pelmoStatus status = Lock_Init(&object->lock, kTypeInfo[typeIndex(type)].rank);
    if (status != kStatusSuccess) {
        logPrint("Out of memory trying to create an Id");
        return kStatusNoMemory;
    }
    object->flags.store(0, std::memory_order_relaxed);
    object->type = type;
    object->id = kNoId;
    object->destructor = destructor;
    object->flagLock = nullptr;
    object->refCount.store(1, std::memory_order_relaxed);
    return kStatusSuccess;
}

pelmoStatus Id_SetGlobal(IdHeader* object, uint32_t* outId) {
    uint32_t id = kNoId;
    pelmoStatus status = takeGlobalId(object->type, id);
    if (status == kStatusNotInitialized) return status;
    if (status != kStatusSuccess) {
        logPrint("Out of memory trying to set a global Id");
        return kStatusNoMemory;
    }
    status = publish(object, id);
    if (status != kStatusSuccess) {
        logPrint("Out of memory trying to set an Id");
        giveGlobalId(id);
        return status;
    }
    if (outId != nullptr) *outId = id;
    return kStatusSuccess;
}

pelmoStatus Id_SetFixed(IdHeader* object, uint32_t id) {
    if (id == kNoId || id > kLastFixedId) return kStatusInvalidArgument;
    const pelmoStatus status = publish(object, id);
    if (status != kStatusSuccess) logPrint("Out of memory trying to set an Id");
    return status;
}

pelmoStatus Id_Invalidate(IdHeader* object) PELMO_UNCHECKED_LOCKING {
    Lock_Enter(&object->lock);
    const pelmoStatus status = withdraw(object);
    if (status == kStatusSuccess) {
        markInvalid(object);
        giveGlobalId(object->id);
    }
    Lock_Leave(&object->lock);
    return status;
}

// `access` says whether the lock stays held; `unlock` releases it.
pelmoStatus Id_Get(uint32_t id, IdType type, IdHeader** out, IdAccess access)
    PELMO_UNCHECKED_LOCKING {
    if (out == nullptr) return kStatusInvalidArgument;
    IdHeader* object = nullptr;
    const pelmoStatus status = lookUp(id, type, &object);
    if (status == kStatusNotFound) return missStatus(id, type);
    if (status != kStatusSuccess) return status;

    // The table's lock is released by now, since it ranks after the object's. Meanwhile the object
    // may have been destroyed, and its id given to another. Taking the object's lock for a look-up
    // without lock wouldn't help: it may be destroyed right after this call, too.
    if (access == IdAccess::kUnlocked && !Id_IsInvalid(object)) {
        *out = object;
        return kStatusSuccess;
    }
    Id_Enter(object);
    const bool destroys = access == IdAccess::kDestroy || access == IdAccess::kDestroyLocked;
    if (destroys ? !destroyLocked(object) : Id_IsInvalid(object)) {
        Id_Release(object, true);
        return kStatusNotFound;
    }
    if (access == IdAccess::kUnlocked || access == IdAccess::kDestroy) Id_Leave(object);
    *out = object;
    return kStatusSuccess;
}

pelmoStatus Id_Release(IdHeader* object, bool unlock) PELMO_UNCHECKED_LOCKING {
    if (object == nullptr) return kStatusInvalidArgument;
    // Without tables only a creator that failed comes here; its object is freed all the same.
    const bool ready = state.ready.load(std::memory_order_relaxed);
    const pelmoStatus done = ready ? kStatusSuccess : kStatusInvalidArgument;
    if (unlock) Id_Leave(object);
    // What every holder did to the object happens before its end.
    if (object->refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return done;

    // Its last reference went away without a destroy.
    if (!Id_IsInvalid(object) && withdraw(object) == kStatusSuccess) giveGlobalId(object->id);
    Lock_Destroy(&object->lock);
    object->destructor(object);
    return done;
}

void Id_AddRef(IdHeader* object) {
    object->refCount.fetch_add(1, std::memory_order_relaxed);
}

pelmoStatus Id_Check(uint32_t id, IdType type) {
    {
        IdTable& table = tableOf(type);
        const LockGuard guard(table.lock);
        if (table.objects == nullptr) return kStatusInvalidArgument;
        if (dict32Find(table.objects, id, nullptr) == kStatusSuccess) return kStatusSuccess;
    }
    return missStatus(id, type);
}

// Annotations can't name the lock of an object that may be null.
void Id_Enter(IdHeader* object) PELMO_UNCHECKED_LOCKING {
    if (object != nullptr) Lock_Enter(&object->lock);
}

void Id_Leave(IdHeader* object) PELMO_UNCHECKED_LOCKING {
    if (object != nullptr) Lock_Leave(&object->lock);
}

pelmoStatus Id_Wait(IdHeader* object, Cond* cond) {
    return Cond_Wait(cond, &object->lock);
}

pelmoStatus Id_TimedWait(IdHeader* object, Cond* cond, double seconds) {
    return Cond_TimedWait(cond, &object->lock, seconds);
}
