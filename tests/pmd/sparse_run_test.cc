// Runs that keep much memory: when they are copied, and what the copy is.

#include "pmd/sparse_run.h"

#include "lib/containers/dpa.h"
#include "tests/support/envelope_bytes.h"
#include "tests/support/fail_alloc.h"

namespace {

struct TestRun {
    Buffer* buffer;
    std::vector<pelmoMsg*> messages;

    // So many messages of 14 bytes, with gaps of one byte between them, in a buffer of that size.
    TestRun(uint32_t bufferBytes, uint32_t count) : buffer(bufferCreate(bufferBytes)) {
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t offset = i * static_cast<uint32_t>(kApp.size() + 1);
            std::copy(kApp.begin(), kApp.end(), buffer->data + offset);
            messages.push_back(nullptr);
            EXPECT_EQ(msgCreateOverBuffer(&messages.back(), buffer, offset), kStatusSuccess);
        }
    }

    ~TestRun() {
        for (pelmoMsg* msg : messages) {
            msgRelease(msg);
        }
        bufferRelease(buffer);
    }
};

TEST(SparseRun, IsOneThatKeepsMoreThanFourTimesItsBytes) {
    const auto own = static_cast<uint32_t>(kApp.size());
    EXPECT_FALSE(runIsSparse(TestRun(4 * own, 1).messages));
    EXPECT_TRUE(runIsSparse(TestRun(4 * own + 1, 1).messages));
    EXPECT_FALSE(runIsSparse(TestRun(12 * own, 3).messages));
    EXPECT_TRUE(runIsSparse(TestRun(12 * own + 1, 3).messages));
}

TEST(SparseRun, IsCopiedToOneBuffer) {
    const TestRun run(4096, 3);
    Dpa* copies = dpaCreate(1);
    ASSERT_EQ(runCopy(run.messages, copies), kStatusSuccess);
    ASSERT_EQ(copies->count, 3u);
    for (uint32_t i = 0; i < copies->count; ++i) {
        auto* msg = static_cast<pelmoMsg*>(copies->items[i]);
        EXPECT_EQ(msg->base, i * kApp.size());
        EXPECT_EQ(wireOf(msg), kApp);
        EXPECT_EQ(msg->buffer, static_cast<pelmoMsg*>(copies->items[0])->buffer);
    }
    eachAllocationFails([&] {
        const bool copied = runCopy(run.messages, copies) == kStatusSuccess;
        allocationsHeal();
        EXPECT_EQ(copies->count, copied ? 6u : 3u);
        while (copies->count > 3) {
            msgRelease(static_cast<pelmoMsg*>(copies->items[--copies->count]));
        }
    });
    while (copies->count != 0) {
        msgRelease(static_cast<pelmoMsg*>(copies->items[--copies->count]));
    }
    dpaDestroy(copies);
}

}  // namespace
