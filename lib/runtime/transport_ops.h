// The interface that queues, dispatchers and events need from transports. The table is empty until
// the floor above fills it, before the first open.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/runtime/callbacks.h"

struct Event;
struct pelmoMsg;

enum class ListenerKind : uint32_t { kPlain, kVector, kPolled };

struct ListenerRequest {
    uint32_t queueId;
    uint32_t transportId;
    const char* subject;
    ListenerKind kind;
    pelmoEventCallback callback = nullptr;         // kPlain
    pelmoVectorCallback vectorCallback = nullptr;  // kVector
    void* vectorGroup = nullptr;                   // kVector
    void* closure = nullptr;
};

struct TransportOps {
    // An advisory: a message about the library's own state, on a reserved subject.
    pelmoStatus (*sendAdvisory)(uint32_t transport,
                                const char* advisoryClass,
                                const char* source,
                                const char* name,
                                const char* description);

    // Makes the message that sendAdvisory would send, for a caller that adds fields of its own.
    pelmoStatus (*createAdvisory)(pelmoMsg** out,
                                  const char* advisoryClass,
                                  const char* source,
                                  const char* name,
                                  const char* description);

    // Delivers to the transport's own listeners. It takes ownership of the message, on failure too.
    pelmoStatus (*distribute)(uint32_t transport, pelmoMsg* message);

    // Makes the event, binds it to the transport and gives it its id.
    pelmoStatus (*addListener)(uint32_t* out, const ListenerRequest& request);

    // Removes the listener from its transport: empties and frees its inbox, sets its transport to
    // 0.
    pelmoStatus (*removeListener)(uint32_t transport, Event* event);

    // May the message be passed to the listener's callback? False when the transport is gone.
    bool (*runInboundHooks)(uint32_t transport, pelmoMsg* message);
};

inline TransportOps transportOps{};
