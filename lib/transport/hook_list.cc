#include "lib/transport/hook_list.h"

#include <cstdlib>
#include <new>

#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"

namespace {

TransportHook* hookAt(const Dpa* list, uint32_t index) {
    return static_cast<TransportHook*>(list->items[index]);
}

}  // namespace

pelmoStatus hookListsAdd(HookLists& hooks, const TransportHook& hook, TransportHook** out) {
    auto* const record = static_cast<TransportHook*>(std::malloc(sizeof(TransportHook)));
    if (record == nullptr) return kStatusNoMemory;
    *record = hook;
    Dpa*& list = hooks.lists[hook.kind];
    if (list == nullptr) list = dpaCreate(1);
    if (list == nullptr || !dpaAppend(list, record)) {
        std::free(record);
        return kStatusNoMemory;
    }
    *out = record;
    return kStatusSuccess;
}

pelmoStatus hookListsRemove(HookLists& hooks, TransportHook* hook) {
    Dpa* const list = hooks.lists[hook->kind];
    const int32_t index = list != nullptr ? dpaIndexOf(list, hook) : -1;
    if (index < 0) return kStatusInvalidArgument;
    dpaRemoveAt(list, static_cast<uint32_t>(index));
    std::free(hook);
    return kStatusSuccess;
}

uint32_t hookListsCount(const HookLists& hooks, HookKind kind) {
    return hooks.lists[kind] != nullptr ? hooks.lists[kind]->count : 0;
}

void hookListsFree(HookLists& hooks) {
    for (Dpa*& list : hooks.lists) {
        for (uint32_t i = 0; list != nullptr && i < list->count; ++i) {
            std::free(hookAt(list, i));
        }
        list = dpaDestroy(list);
    }
}

pelmoStatus HookCopies::take(const HookLists& hooks, HookKind kind) {
    const uint32_t wanted = hookListsCount(hooks, kind);
    if (wanted > kOnStack) {
        onHeap.reset(new (std::nothrow) TransportHook[wanted]);
        if (onHeap == nullptr) return kStatusNoMemory;
        copies = onHeap.get();
    }
    for (count = 0; count < wanted; ++count) {
        copies[count] = *hookAt(hooks.lists[kind], count);
    }
    return kStatusSuccess;
}

pelmoStatus HookCopies::run(pelmoMsg** message) const {
    for (uint32_t i = 0; i < count; ++i) {
        const TransportHook& hook = copies[i];
        pelmoMsg* const before = message != nullptr ? *message : nullptr;
        const pelmoStatus status = hook.callback(hook.transportId, message, hook.closure);
        if (message != nullptr && *message != before) msgRelease(before);
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}
