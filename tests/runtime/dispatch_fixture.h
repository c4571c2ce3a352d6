// The fixture of dispatch: the intra-process transport, a queue, and a group of that queue.

#pragma once

#include "tests/support/local_bus.h"

struct DispatchFixture : LocalBus {
    uint32_t queue = makeQueue();
    uint32_t group = makeGroup();

    DispatchFixture() { EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess); }
};

inline uint32_t listen(uint32_t queue, pelmoEventCallback callback, void* closure = nullptr) {
    uint32_t event = kNoId;
    EXPECT_EQ(pelmoEvent_CreateListener(&event, queue, callback, kLocal, "A", closure),
              kStatusSuccess);
    return event;
}
