// When a transport's hooks run, and under which locks.

#include "lib/msg/message_internal.h"
#include "lib/transport/transport_internal.h"

pelmoStatus Transport_AddHook(TransportHook** out,
                              HookKind kind,
                              uint32_t transport,
                              TransportHookFunction callback,
                              void* closure) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return kStatusInvalidTransport;
    return hookListsAdd(held->hooks, {kind, transport, callback, closure}, out);
}

pelmoStatus Transport_RemoveHook(TransportHook* hook) {
    Held<Transport> held;
    if (held.findLocked(hook->transportId) != kStatusSuccess) {
        return kStatusInvalidTransport;
    }
    return hookListsRemove(held->hooks, hook);
}

pelmoStatus Transport_RunHooks(Transport* transport, HookKind kind, pelmoMsg** message) {
    if (!transportHasHooks(transport, kind)) return kStatusSuccess;
    HookCopies copies;
    pelmoStatus status = copies.take(transport->hooks, kind);
    if (status != kStatusSuccess) return status;
    Id_Leave(&transport->header);
    status = copies.run(message);
    Id_Enter(&transport->header);
    return status;
}

bool transportHasHooks(const Transport* transport, HookKind kind) {
    return hookListsCount(transport->hooks, kind) != 0;
}

bool Transport_RunInboundHooks(uint32_t transport, pelmoMsg* message) {
    Held<Transport> held;
    if (held.findLocked(transport) != kStatusSuccess) return false;
    // The dispatch keeps its own reference, so a replacement by a hook has no effect.
    msgRetain(message);
    pelmoMsg* shown = message;
    const pelmoStatus status = Transport_RunHooks(held.get(), kHookInbound, &shown);
    msgRelease(shown);
    return status == kStatusSuccess;
}
