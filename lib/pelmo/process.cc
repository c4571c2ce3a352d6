// The one-time set-up of the process, which all opens of the library share.

#include "lib/base/thread.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/pool.h"
#include "lib/pelmo/library_state.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/id.h"
#include "lib/transport/circuit/circuit_internal.h"
#include "lib/transport/daemon/daemon_link.h"
#include "lib/transport/daemon/direct_endpoint.h"
#include "lib/transport/ipq/write_queue.h"
#include "lib/transport/reliable/send_buffer.h"
#include "lib/transport/transport_internal.h"

constinit LibraryState library;

namespace {

constexpr uint32_t kThreadCaches = 1;

constinit OnceGate setUpGate;

void setUp() {
    if (Cond_Init(&library.closedCond) != kStatusSuccess) return;
    if (poolManagerOpen(kThreadCaches) != kStatusSuccess) {
        Cond_Destroy(&library.closedCond);
        return;
    }
    Thread_SetStartHook(poolThreadRun);
    poolTimerOps = {.create = pelmoEvent_CreateTimer, .destroyEx = pelmoEvent_DestroyEx};
    transportAttach();
    daemonLinkAttach();
    circuitAttach();
    directEndpointAttach();
    library.setupDone = true;
}

}  // namespace

pelmoStatus processSetUp() {
    const pelmoStatus status = oncePass(setUpGate, setUp);
    if (status != kStatusSuccess) return status;
    return library.setupDone ? kStatusSuccess : kStatusInitFailed;
}

pelmoStatus processTablesLocked() {
    if (library.tablesReady) return kStatusSuccess;
    pelmoStatus status = idTablesCreate();
    if (status != kStatusSuccess) return status;

    status = bufferPoolCreate();
    if (status == kStatusSuccess) status = msgPoolCreate();
    if (status == kStatusSuccess) status = writeRecordPoolCreate();
    if (status == kStatusSuccess) status = outPacketPoolCreate();
    if (status != kStatusSuccess) {
        writeRecordPoolDestroy();
        msgPoolDestroy();
        bufferPoolDestroy();
        idTablesDestroy();
    }
    library.tablesReady = status == kStatusSuccess;
    return status;
}
