#include <cstdlib>

#include "lib/base/log.h"
#include "lib/base/version.h"
#include "lib/msg/pool.h"
#include "lib/msg/trace_ops.h"
#include "lib/pelmo.h"
#include "lib/pelmo/library_state.h"
#include "lib/runtime/event_manager.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr char kBanner[] = "\nPelmo API\n\nVersion " PELMO_BUS_VERSION " V1 11/12/20 06:41:40\n";
constexpr uint32_t kIoThreads = 1;
constexpr double kWithoutLimit = -1.0;

constexpr bool kNameIsConstant = false;
constexpr bool kForDispatch = false;

pelmoStatus makeQueue(uint32_t id, const char* name) {
    return Queue_Create(nullptr, id, name, kNameIsConstant, kForDispatch);
}

// Stops at the first failure. The caller ends what was started by then.
pelmoStatus fixedObjectsMakeLocked() PELMO_REQUIRES(library.lock) {
    pelmoStatus status = makeQueue(kDefaultQueueId, "Default Queue");
    if (status == kStatusSuccess) status = Transport_CreateIntraProcess();
    if (status == kStatusSuccess) status = EventManager_Start();
    if (status == kStatusSuccess) status = makeQueue(kWorkQueueId, "Work Queue");
    if (status != kStatusSuccess) return status;
    return pelmoDispatcher_CreateEx(&library.workDispatcher, kWorkQueueId, kWithoutLimit);
}

// Neither invalid settings nor a machine without sockets make an open fail: timers and listeners
// work without them.
pelmoStatus openFirstLocked() PELMO_REQUIRES(library.lock) {
    pelmoStatus status = processTablesLocked();
    if (status != kStatusSuccess) return status;
    poolThreadEnter();
    status = fixedObjectsMakeLocked();
    if (status != kStatusSuccess) {
        fixedObjectsEndLocked();
        return status;
    }
    (void)Tracing_Start(std::getenv("_PM_TRACING_MODULES"), std::getenv("_PM_TRACING_FILE"),
                        kBanner);
    traceLine(kTraceLibrary, "pelmo_Open()");
    library.openCount = 1;
    libraryOpen.store(true, std::memory_order_release);
    (void)EventManager_StartIo(kIoThreads);
    return kStatusSuccess;
}

pelmoStatus openAgainLocked() PELMO_REQUIRES(library.lock) {
    traceLine(kTraceLibrary, "pelmo_Open()");
    ++library.openCount;
    return kStatusSuccess;
}

// A close that ran out of memory can't stop the timers in order, so the open first removes what is
// left of them.
pelmoStatus startReclaim() {
    const pelmoStatus status = poolStartReclaim(kTimerQueueId);
    if (status != kStatusNotPermitted) return status;
    poolStopReclaim();
    return poolStartReclaim(kTimerQueueId);
}

}  // namespace

pelmoStatus pelmo_Open() {
    pelmoStatus status = processSetUp();
    if (status != kStatusSuccess) return status;
    {
        const LockGuard guard(library.lock);
        if (libraryIsOpen()) return openAgainLocked();
        status = openFirstLocked();
        if (status != kStatusSuccess) return status;
        // Under the lock, so that no close comes between the open and the timers.
        status = startReclaim();
    }
    if (status != kStatusSuccess) pelmo_Close();
    return status;
}

const char* pelmo_Version() {
    traceLine(kTraceLibrary, "pelmo_Version()");
    return PELMO_BUS_VERSION;
}

void pelmo_SetLogHook(pelmoLogHook hook, void* closure) {
    logSetHook(hook, closure);
}

void pelmo_WaitClosed() {
    if (!libraryIsOpen()) return;
    const LockGuard guard(library.lock);
    // Another thread may open the library before this one gets the lock back.
    const uint32_t closeCount = library.closeCount;
    while (libraryIsOpen() && library.closeCount == closeCount) {
        Cond_Wait(&library.closedCond, &library.lock);
    }
}
