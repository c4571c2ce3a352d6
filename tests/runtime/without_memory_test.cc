// What is made while memory runs out is made whole or not at all: no object, no id and nothing that
// fires is left of it. Sets and lists are full, so that each has to grow, and one id is free.

#include <cstdlib>
#include <cstring>

#include "lib/base/log.h"
#include "lib/runtime/dispatcher.h"
#include "lib/runtime/id_counter.h"
#include "lib/runtime/tracing.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/fail_alloc.h"

namespace {

struct Row {
    const char* what;
    pelmoStatus (*make)(uint32_t queue, int source, uint32_t* out);
    void (*end)(uint32_t id);
};

// A name that the queue would own stays the caller's where there is no queue.
pelmoStatus makeNamedQueue(uint32_t, int, uint32_t* out) {
    char* const name = strdup("given away");
    const pelmoStatus status = Queue_Create(out, kNoId, name, true, false);
    if (status == kStatusSuccess) return status;
    EXPECT_STREQ(name, "given away");
    std::free(name);
    return status;
}

const Row kRows[] = {
    {"timer",
     [](uint32_t queue, int, uint32_t* out) {
         return pelmoEvent_CreateTimer(out, queue, ignoreEvent, 1, nullptr);
     },
     [](uint32_t id) { pelmoEvent_DestroyEx(id, nullptr); }},
    {"IO event",
     [](uint32_t queue, int source, uint32_t* out) {
         return pelmoEvent_CreateIO(out, queue, ignoreEvent, source, kIoRead, nullptr);
     },
     [](uint32_t id) { pelmoEvent_DestroyEx(id, nullptr); }},
    {"dispatcher",
     [](uint32_t queue, int, uint32_t* out) { return pelmoDispatcher_CreateEx(out, queue, -1.0); },
     [](uint32_t id) { pelmoDispatcher_Destroy(id); }},
    {"group", [](uint32_t, int, uint32_t* out) { return pelmoQueueGroup_Create(out); },
     [](uint32_t id) { pelmoQueueGroup_Destroy(id); }},
    {"queue", makeNamedQueue, [](uint32_t id) { pelmoQueue_DestroyEx(id, nullptr, nullptr); }},
    {"tracing",
     [](uint32_t, int, uint32_t*) { return Tracing_Start("RECV=A.B,RECV=A.>", nullptr, nullptr); },
     [](uint32_t) {}},
};

TEST(WithoutMemory, NothingIsHalfMade) {
    const SocketPair pairs[63], one;  // the wake-up pair's is the 64th
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        const EventStand stand;
        uint32_t id = kNoId;
        for (const SocketPair& pair : pairs)
            ASSERT_EQ(kRows[1].make(stand.queue, pair.ends[0], &id), kStatusSuccess);
        for (int i = 0; i < 8; ++i)
            (void)stand.timer(1e9, ignoreEvent);
        const size_t before = objectCount();
        const IdCounter counter = idCounter;
        idCounter.first = idCounter.last = counter.previous + 1;
        testing::internal::CaptureStderr();
        const size_t failing = eachAllocationFails([&] {
            id = kNoId;
            const pelmoStatus status = row.make(stand.queue, one.ends[0], &id);
            const bool failed = allocationsFailed() != 0;
            allocationsHeal();
            EXPECT_EQ(status == kStatusSuccess, !failed);
            EXPECT_TRUE(!failed || status == kStatusNoMemory || status == kStatusSocketLimit);
            if (failed) {
                EXPECT_EQ(id, kNoId);
            } else {
                row.end(id);
            }
            const bool traces = !failed && id == kNoId;  // what traces has no id
            EXPECT_EQ(traceOps.on, traces ? 1U : 0U);
            Tracing_Stop();
            Tracing_Clear();
            EXPECT_EQ(stand.fire(1e6), 0u);
            EXPECT_EQ(objectCount(), before);
        });
        idCounter = counter;
        logSetUtcStamp(false);
        const std::string told = testing::internal::GetCapturedStderr();
        for (const char* what : {"a global Id", "an Id"}) {
            EXPECT_EQ(told.find(std::string("Out of memory trying to set ") + what) != told.npos,
                      id != kNoId);
        }
        EXPECT_GT(failing, 2u);
    }
}

}  // namespace
