#include "lib/runtime/dispatcher.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "lib/base/text.h"
#include "lib/base/thread.h"
#include "lib/msg/message.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/dispatch_internal.h"
#include "lib/runtime/dispatch_wait.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"

namespace {

constexpr size_t kAdvisoryNameBytes = 255;
constexpr const char* kUnnamed = "dispatcher";

struct Dispatcher {
    static constexpr IdType kIdType = IdType::kDispatcher;
    IdHeader header;

    // Constant after creation.
    uint32_t dispatchable;
    bool isQueue;  // else a group
    double seconds;
    Thread* thread;  // set with the object lock held, which the thread itself begins by taking

    // 0, then `dispatchable` for a thread that is to end. Written with the lock of what the thread
    // waits on held; atomic for a thread whose queue is gone.
    std::atomic<uint32_t> stopTarget;

    Lock joinLock;  // of several threads that join, one waits for the thread and the others for it

    char* name PELMO_GUARDED_BY(header.lock);  // heap text; null reads "dispatcher"
};

const char* nameLocked(const Dispatcher* dispatcher) PELMO_REQUIRES(dispatcher->header.lock) {
    return dispatcher->name != nullptr ? dispatcher->name : kUnnamed;
}

void destruct(IdHeader* object) PELMO_UNCHECKED_LOCKING {  // no other thread can reach it
    auto* dispatcher = reinterpret_cast<Dispatcher*>(object);
    if (dispatcher->thread != nullptr) Thread_Destroy(dispatcher->thread);
    Lock_Destroy(&dispatcher->joinLock);
    std::free(dispatcher->name);
    std::free(dispatcher);
}

// With one reference and no id.
Dispatcher* newDispatcher(uint32_t dispatchable, bool isQueue, double seconds) {
    void* block = std::calloc(1, sizeof(Dispatcher));
    if (block == nullptr) return nullptr;
    auto* dispatcher = new (block) Dispatcher{};
    dispatcher->dispatchable = dispatchable;
    dispatcher->isQueue = isQueue;
    dispatcher->seconds = seconds;
    if (Lock_Init(&dispatcher->joinLock, LockRank::kLeaf) != kStatusSuccess) {
        std::free(block);
        return nullptr;
    }
    if (Id_Init(&dispatcher->header, IdType::kDispatcher, destruct) != kStatusSuccess) {
        Lock_Destroy(&dispatcher->joinLock);
        std::free(block);
        return nullptr;
    }
    return dispatcher;
}

pelmoStatus createExitAdvisory(pelmoMsg** out, const char* dispatcherName) {
    char name[kAdvisoryNameBytes];
    boundedFormat(name, sizeof name, "DISPATCHER.THREAD_EXITED.%s", dispatcherName);
    return transportOps.createAdvisory(out, "INFO", "SYSTEM", name, nullptr);
}

// A name that makes no subject, since it is too long or has an empty element, counts as none. Null
// without memory.
pelmoMsg* newExitAdvisory(Dispatcher* dispatcher, pelmoStatus status) {
    if (transportOps.createAdvisory == nullptr) return nullptr;
    pelmoMsg* message = nullptr;
    Id_Enter(&dispatcher->header);
    pelmoStatus created = createExitAdvisory(&message, nameLocked(dispatcher));
    Id_Leave(&dispatcher->header);
    if (created != kStatusSuccess && created != kStatusNoMemory) {
        created = createExitAdvisory(&message, kUnnamed);
    }
    if (created != kStatusSuccess) return nullptr;
    const char* const text = pelmoStatus_GetText(status);
    if (pelmoMsg_AddU32(message, "status", status, 0) == kStatusSuccess &&
        pelmoMsg_AddString(message, "description", text, 0) == kStatusSuccess) {
        return message;
    }
    pelmoMsg_Destroy(message);
    return nullptr;
}

// Without memory the exit goes unreported.
void reportExit(Dispatcher* dispatcher, pelmoStatus status) {
    pelmoMsg* const message = newExitAdvisory(dispatcher, status);
    if (message != nullptr) (void)transportOps.distribute(kIntraProcessTransportId, message);
}

pelmoStatus dispatchOnce(const Dispatcher* dispatcher) {
    return dispatcher->isQueue
               ? Queue_DispatchId(dispatcher->dispatchable, dispatcher->seconds)
               : QueueGroup_DispatchId(dispatcher->dispatchable, dispatcher->seconds);
}

// Body of the thread, started with the dispatcher's id.
void runDispatcher(void* argument) {
    Held<Dispatcher> self;
    const auto id = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    if (self.findLocked(id) != kStatusSuccess) return;
    self.leave();

    dispatchSetStopWord(&self->stopTarget);
    pelmoStatus status = kStatusSuccess;
    const auto goesOn = [](pelmoStatus of) {
        return of == kStatusSuccess || of == kStatusInterrupted;
    };
    while (goesOn(status) && !Id_IsInvalid(&self->header)) {
        status = dispatchOnce(self.get());
    }
    reportExit(self.get(), Id_IsInvalid(&self->header) ? kStatusInvalidDispatcher : status);
    dispatchSetStopWord(nullptr);
}

bool isOwnThread(const Dispatcher* dispatcher) {
    return dispatchStopWord() == &dispatcher->stopTarget;
}

pelmoStatus join(Dispatcher* dispatcher) {
    if (isOwnThread(dispatcher)) return kStatusOsError;
    const LockGuard guard(dispatcher->joinLock);
    return Thread_Join(dispatcher->thread);
}

// With the object lock held: the thread begins by taking it, and finds itself in the record.
pelmoStatus startThreadLocked(Dispatcher* dispatcher) {
    auto* const argument = reinterpret_cast<void*>(uintptr_t{dispatcher->header.id});
    return Thread_Create(&dispatcher->thread, runDispatcher, argument);
}

// Published and running, or neither: then the base reference is gone.
pelmoStatus publish(Dispatcher* dispatcher) {
    if (Id_SetGlobal(&dispatcher->header, nullptr) != kStatusSuccess) {
        Id_Release(&dispatcher->header, false);
        return kStatusNoMemory;
    }
    Id_Enter(&dispatcher->header);
    const pelmoStatus status = startThreadLocked(dispatcher);
    Id_Leave(&dispatcher->header);
    if (status == kStatusSuccess) return kStatusSuccess;
    if (Id_Invalidate(&dispatcher->header) == kStatusSuccess) {
        Id_Release(&dispatcher->header, false);
    }
    return kStatusNoMemory;
}

template <typename Object>
bool tellWaitersOf(Dispatcher* dispatcher) {
    Held<Object> object;
    if (object.findLocked(dispatcher->dispatchable) != kStatusSuccess) return false;
    dispatcher->stopTarget = dispatcher->dispatchable;
    Cond_Broadcast(&object->cond);
    return true;
}

// All who wait on the queue or group wake; only the thread with this word ends its wait. The object
// lock is held: a waiter that has looked at its word and isn't asleep yet can't miss the broadcast.
void tellToStop(Dispatcher* dispatcher) {
    if (tellWaitersOf<Queue>(dispatcher) || tellWaitersOf<QueueGroup>(dispatcher)) return;
    dispatcher->stopTarget = dispatcher->dispatchable;  // what is gone has woken its waiters itself
}

}  // namespace

pelmoStatus pelmoDispatcher_CreateEx(uint32_t* out, uint32_t dispatchable, double seconds) {
    if (out == nullptr) return kStatusInvalidArgument;
    const bool isQueue = Id_Check(dispatchable, IdType::kQueue) == kStatusSuccess;
    if (!isQueue && Id_Check(dispatchable, IdType::kQueueGroup) != kStatusSuccess) {
        return kStatusInvalidArgument;
    }
    Dispatcher* const made = newDispatcher(dispatchable, isQueue, seconds);
    if (made == nullptr) return kStatusNoMemory;
    // A destroy by another thread releases the base reference; this one is ours.
    Held<Dispatcher> dispatcher;
    dispatcher.share(made);
    const pelmoStatus status = publish(made);
    if (status != kStatusSuccess) return status;

    *out = made->header.id;
    traceLine(kTraceDispatch, "pelmoDispatcher_CreateEx(%u, %u, %f)", *out, dispatchable, seconds);
    return kStatusSuccess;
}

pelmoStatus pelmoDispatcher_Destroy(uint32_t dispatcher) {
    traceLine(kTraceDispatch, "pelmoDispatcher_Destroy(%u)", dispatcher);
    Held<Dispatcher> held;
    if (held.destroy(dispatcher) != kStatusSuccess) return kStatusInvalidDispatcher;
    tellToStop(held.get());
    if (!isOwnThread(held.get())) (void)join(held.get());
    return kStatusSuccess;
}

pelmoStatus pelmoDispatcher_Join(uint32_t dispatcher) {
    traceLine(kTraceDispatch, "pelmoDispatcher_Join(%u)", dispatcher);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    Held<Dispatcher> held;
    if (held.findLocked(dispatcher) != kStatusSuccess) return kStatusInvalidDispatcher;
    held.leave();
    return join(held.get());
}

pelmoStatus pelmoDispatcher_GetName(uint32_t dispatcher, const char** out) {
    traceLine(kTraceDispatch, "pelmoDispatcher_GetName(%u, %p)", dispatcher, tracePointer(out));
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (out == nullptr) return kStatusInvalidArgument;
    Held<Dispatcher> held;
    if (held.findLocked(dispatcher) != kStatusSuccess) return kStatusInvalidQueue;
    *out = nameLocked(held.get());
    return kStatusSuccess;
}

pelmoStatus pelmoDispatcher_SetName(uint32_t dispatcher, const char* name) {
    traceLine(kTraceDispatch, "pelmoDispatcher_SetName(%u, \"%s\")", dispatcher, traceText(name));
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (name == nullptr) return kStatusInvalidArgument;
    Held<Dispatcher> held;
    if (held.findLocked(dispatcher) != kStatusSuccess) return kStatusInvalidDispatcher;
    char* const copy = concat2(name, "");
    if (copy == nullptr) return kStatusNoMemory;
    std::free(held->name);
    held->name = copy;
    return kStatusSuccess;
}
