// Keeps what reads returned, and releases it.
//
// Everything is in three arrays in the order of the reads, so a mark consists of their lengths, and
// cutting back removes items from their ends. Pointers into the present buffer are only counted.
// When that buffer is replaced, it is added to the array of held buffers once for each such
// pointer, and the marks are adjusted: what they counted as pointers they then count as array
// items.

#include <algorithm>
#include <cstdlib>

#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"

namespace {

constexpr uint32_t kFirstMarks = 2;

using Drop = void (*)(void* item);

void dropBlock(void* block) {
    std::free(block);
}

void dropBuffer(void* buffer) {
    bufferRelease(static_cast<Buffer*>(buffer));
}

void dropMessage(void* msg) {
    msgRelease(static_cast<pelmoMsg*>(msg));
}

uint32_t countOf(const Dpa* list) {
    return list != nullptr ? list->count : 0;
}

// An array that becomes empty is freed.
void cutList(Dpa*& list, uint32_t count, Drop drop) {
    if (list == nullptr) return;
    while (list->count > count) {
        drop(list->items[--list->count]);
    }
    if (list->count == 0) list = dpaDestroy(list);
}

template <typename Change>
void eachMark(pelmoMsg* msg, Change change) {
    const EntryRing* stack = msg->markStack;
    if (stack == nullptr) return;
    for (uint32_t i = 0; i < stack->count; ++i) {
        void* mark = stack->slots[EntryRing_Slot(stack, i)];
        change(*static_cast<ReferenceMark*>(mark));
    }
}

}  // namespace

pelmoStatus msgListAdd(Dpa*& list, void* item) {
    constexpr uint32_t kFirstItems = 8;
    if (list == nullptr) list = dpaCreate(kFirstItems);
    return list != nullptr && dpaAppend(list, item) ? kStatusSuccess : kStatusNoMemory;
}

pelmoStatus msgKeepBlock(pelmoMsg* msg, void* block) {
    const pelmoStatus status = msgListAdd(msg->ownedBlocks, block);
    if (status != kStatusSuccess) std::free(block);
    return status;
}

pelmoStatus msgHoldBuffer(pelmoMsg* msg) {
    const uint32_t before = countOf(msg->heldBuffers);
    for (uint32_t i = 0; i < msg->bufferRefs; ++i) {
        if (msgListAdd(msg->heldBuffers, msg->buffer) != kStatusSuccess) {
            cutList(msg->heldBuffers, before, dropBuffer);
            return kStatusNoMemory;
        }
        bufferRetain(msg->buffer);
    }
    eachMark(msg, [&](ReferenceMark& mark) {
        if (mark.bufferRefs == 0) return;
        mark.heldBuffers = before + std::min(mark.bufferRefs, msg->bufferRefs);
        mark.bufferRefs = 0;
    });
    msg->bufferRefs = 0;
    return kStatusSuccess;
}

ReferenceMark msgMark(const pelmoMsg* msg) {
    return {.ownedBlocks = countOf(msg->ownedBlocks),
            .heldBuffers = countOf(msg->heldBuffers),
            .subMessages = countOf(msg->subMessages),
            .bufferRefs = msg->bufferRefs};
}

void msgCutBack(pelmoMsg* msg, const ReferenceMark& mark) {
    cutList(msg->ownedBlocks, mark.ownedBlocks, dropBlock);
    cutList(msg->subMessages, mark.subMessages, dropMessage);
    cutList(msg->heldBuffers, mark.heldBuffers, dropBuffer);
    msg->bufferRefs = std::min(msg->bufferRefs, mark.bufferRefs);
}

void msgCutBackAll(pelmoMsg* msg) {
    msgCutBack(msg, {});
    eachMark(msg, [](ReferenceMark& mark) { mark = {}; });
}

void msgDropMarks(pelmoMsg* msg) {
    if (msg->markStack == nullptr) return;
    while (void* mark = EntryRing_PopBack(msg->markStack)) {
        std::free(mark);
    }
    EntryRing_Destroy(msg->markStack);
    msg->markStack = nullptr;
}

pelmoStatus pelmoMsg_MarkReferences(pelmoMsg* msg) {
    traceLine(kTraceMsgDetail, "pelmoMsg_MarkReferences(%p)", tracePointer(msg));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (msg->markStack == nullptr) msg->markStack = EntryRing_Create(kFirstMarks);
    if (msg->markStack == nullptr) return kStatusNoMemory;
    auto* mark = static_cast<ReferenceMark*>(std::malloc(sizeof(ReferenceMark)));
    if (mark == nullptr) return kStatusNoMemory;
    *mark = msgMark(msg);
    if (EntryRing_PushBack(msg->markStack, mark)) return kStatusSuccess;
    std::free(mark);
    return kStatusNoMemory;
}

pelmoStatus pelmoMsg_ClearReferences(pelmoMsg* msg) {
    traceLine(kTraceMsgDetail, "pelmoMsg_ClearReferences(%p)", tracePointer(msg));
    if (!msgIsValid(msg) || msg->markStack == nullptr) return kStatusInvalidMessage;
    auto* mark = static_cast<ReferenceMark*>(EntryRing_PopBack(msg->markStack));
    if (mark == nullptr) return kStatusNotPermitted;
    msgCutBack(msg, *mark);
    std::free(mark);
    return kStatusSuccess;
}
