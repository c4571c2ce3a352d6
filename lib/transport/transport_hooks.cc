#include "lib/transport/transport_hooks.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>

#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/transport_internal.h"

namespace {

constexpr uint32_t kHooksOnStack = 64;

TransportHook* hookAt(const Dpa* list, uint32_t index) {
    return static_cast<TransportHook*>(list->items[index]);
}

struct FreeBlock {
    void operator()(TransportHook* block) const { std::free(block); }
};

pelmoStatus runCopies(const TransportHook* hooks, uint32_t count, pelmoMsg** message) {
    for (uint32_t i = 0; i < count; ++i) {
        pelmoMsg* const before = message != nullptr ? *message : nullptr;
        const pelmoStatus status =
            hooks[i].callback(hooks[i].transportId, message, hooks[i].closure);
        if (message != nullptr && *message != before) msgRelease(before);
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

}  // namespace

pelmoStatus Transport_AddHook(TransportHook** out,
                              HookKind kind,
                              uint32_t transport,
                              TransportHookFunction callback,
                              void* closure) {
    Held<Transport> held;
    if (held.get(transport, IdAccess::kLocked) != kStatusSuccess) return kStatusInvalidTransport;
    auto* hook = static_cast<TransportHook*>(std::malloc(sizeof(TransportHook)));
    if (hook == nullptr) return kStatusNoMemory;
    *hook = {kind, transport, callback, closure};
    Dpa*& list = held->hooks[kind];
    if (list == nullptr) list = dpaCreate(1);
    if (list == nullptr || !dpaAppend(list, hook)) {
        std::free(hook);
        return kStatusNoMemory;
    }
    *out = hook;
    return kStatusSuccess;
}

pelmoStatus Transport_RemoveHook(TransportHook* hook) {
    Held<Transport> held;
    if (held.get(hook->transportId, IdAccess::kLocked) != kStatusSuccess) {
        return kStatusInvalidTransport;
    }
    Dpa* list = held->hooks[hook->kind];
    const int32_t index = list != nullptr ? dpaIndexOf(list, hook) : -1;
    if (index < 0) return kStatusInvalidArgument;
    dpaRemoveAt(list, static_cast<uint32_t>(index));
    std::free(hook);
    return kStatusSuccess;
}

pelmoStatus Transport_RunHooks(Transport* transport, HookKind kind, pelmoMsg** message) {
    const Dpa* list = transport->hooks[kind];
    const uint32_t count = list != nullptr ? list->count : 0;
    if (count == 0) return kStatusSuccess;
    TransportHook onStack[kHooksOnStack];
    std::unique_ptr<TransportHook, FreeBlock> onHeap;
    TransportHook* copies = onStack;
    if (count > kHooksOnStack) {
        onHeap.reset(static_cast<TransportHook*>(std::calloc(count, sizeof(TransportHook))));
        if (onHeap == nullptr) return kStatusNoMemory;
        copies = onHeap.get();
    }
    for (uint32_t i = 0; i < count; ++i) {
        copies[i] = *hookAt(list, i);
    }
    Id_Leave(&transport->header);
    const pelmoStatus status = runCopies(copies, count, message);
    Id_Enter(&transport->header);
    return status;
}

bool transportHasHooks(const Transport* transport, HookKind kind) {
    return transport->hooks[kind] != nullptr && transport->hooks[kind]->count != 0;
}

bool Transport_RunInboundHooks(uint32_t transport, pelmoMsg* message) {
    Held<Transport> held;
    if (held.get(transport, IdAccess::kLocked) != kStatusSuccess) return false;
    // The dispatch keeps its own reference, whatever a hook puts in the message's place.
    msgRetain(message);
    pelmoMsg* shown = message;
    const pelmoStatus status = Transport_RunHooks(held.pointer(), kHookInbound, &shown);
    msgRelease(shown);
    return status == kStatusSuccess;
}

void transportFreeHooks(Transport* transport) {
    for (Dpa*& list : transport->hooks) {
        for (uint32_t i = 0; list != nullptr && i < list->count; ++i) {
            std::free(hookAt(list, i));
        }
        list = dpaDestroy(list);
    }
}
