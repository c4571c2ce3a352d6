#include "pmd/sparse_run.h"

#include "lib/containers/dpa.h"
#include "tests/support/envelope_bytes.h"
#include "tests/support/fail_alloc.h"

namespace {

// Three messages of 14 bytes in a buffer of that size, with gaps of one byte between them.
std::vector<pelmoMsg*> threeMessages(uint32_t bufferBytes) {
    Buffer* const buffer = bufferCreate(bufferBytes);
    std::vector<pelmoMsg*> messages(3);
    uint32_t offset = 0;
    for (pelmoMsg*& msg : messages) {
        std::copy(kApp.begin(), kApp.end(), buffer->data + offset);
        EXPECT_EQ(msgCreateOverBuffer(&msg, buffer, offset), kStatusSuccess);
        offset += static_cast<uint32_t>(kApp.size() + 1);
    }
    bufferRelease(buffer);
    return messages;
}

TEST(SparseRun, KeepsMoreThanFourTimesItsBytesAndIsCopiedToOneBuffer) {
    const auto bytes = static_cast<uint32_t>(3 * kApp.size());
    for (const uint32_t spare : {0u, 1u}) {
        const std::vector<pelmoMsg*> run = threeMessages(4 * bytes + spare);
        EXPECT_EQ(runIsSparse(run), spare != 0);
        Dpa* const copies = dpaCreate(1);
        eachAllocationFails([&] {
            const bool copied = runCopy(run, copies) == kStatusSuccess;
            allocationsHeal();
            EXPECT_EQ(copies->count, copied ? 3u : 0u);
            while (copies->count != 0) {
                auto* const msg = static_cast<pelmoMsg*>(copies->items[--copies->count]);
                EXPECT_EQ(msg->base, copies->count * kApp.size());
                EXPECT_EQ(wireOf(msg), kApp);
                EXPECT_EQ(msg->buffer, static_cast<pelmoMsg*>(copies->items[0])->buffer);
                msgRelease(msg);
            }
        });
        dpaDestroy(copies);
        for (pelmoMsg* msg : run)
            msgRelease(msg);
    }
}

}  // namespace
