#include "lib/transport/ipq/write_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "lib/containers/entry_ring.h"
#include "lib/msg/buffer.h"
#include "lib/transport/socket/gather_list.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/test.h"

namespace {

struct TestQueue : NoCopy {
    explicit TestQueue(uint32_t byteLimit = 0) { writeQueueInit(&queue, byteLimit); }
    ~TestQueue() {
        writeQueueClear(&queue);
        EXPECT_EQ(queue.messages, 0u);
        EXPECT_EQ(queue.bufferBytes, 0u);
    }

    pelmoStatus add(uint32_t size, char fill, bool urgent = false, double now = 10) {
        constexpr uint32_t kOffset = 3;
        Buffer* const buffer = bufferCreate(size + kOffset);
        if (buffer == nullptr) return kStatusNoMemory;
        std::fill_n(buffer->data + kOffset, size, static_cast<uint8_t>(fill));
        const pelmoStatus status = writeQueueAdd(&queue, {buffer, kOffset, size, 1, urgent}, now);
        bufferRelease(buffer);
        return status;
    }
    // The next bytes.
    std::string gather(uint32_t most = UINT32_MAX) {
        gatherClear(&list);
        writeQueueGather(&queue, &list, most);
        std::string bytes;
        for (uint32_t i = 0; i < list.count; ++i) {
            bytes.append(static_cast<char*>(list.entries[i].iov_base), list.entries[i].iov_len);
        }
        EXPECT_EQ(bytes.size(), list.total);
        if (list.count < list.capacity) {
            EXPECT_EQ(bytes.size(), std::min<uint64_t>(most, writeQueueBytes(&queue)));
        }
        return bytes;
    }
    [[nodiscard]] uint32_t waiting() const { return queue.ring != nullptr ? queue.ring->count : 0; }

    WriteQueue queue;
    iovec entries[50];
    GatherList list = {.capacity = 50, .count = 0, .total = 0, .entries = entries};
};

std::string lettersOf(std::string bytes) {
    bytes.erase(std::unique(bytes.begin(), bytes.end()), bytes.end());
    return bytes;
}

// Of which messages become one record, and in which order they leave.
TEST(WriteQueue, CoalescesSmallMessages) {
    const struct {
        const char* ops;      // "a2048" adds, "!a1" urgently, "-2951" sends
        const char* records;  // the current one, then those that wait: letters of what is left
    } cases[] = {
        {"a2048 b2048", "ab"},          // the tail is small, and so is the message
        {"a2048 b2049", "a b"},         // the message isn't
        {"a2049 b2048", "a b"},         // the tail isn't
        {"a2049 b2048 c2048", "a bc"},  // the new tail is
        {"a2048 b2048 c2048 d2048 e2048 f2048 g2048 h2048", "abcdefgh"},       // 16384 bytes in all
        {"a2048 b2048 c2048 d2048 e2048 f2048 g2048 h2047 i2", "abcdefgh i"},  // one more
        {"a100 b5000 c100 d100", "a b cd"},
        {"a5000 -2951 b10", "a b"},  // too much is left
        {"a5000 -2952 b10", "ab"},
        {"b10 -4 c10", "bc"},
        {"a3000 b3000 !u1 !v1", "a v u b"},  // urgent ones pass what waits
        {"a3000 !u1 n1", "a u n"},
    };
    for (const auto& c : cases) {
        TestQueue test;
        std::istringstream ops(c.ops);
        for (std::string op; ops >> op;) {
            const bool urgent = op[0] == '!';
            const auto size = static_cast<uint32_t>(std::stoul(op.substr(urgent ? 2 : 1)));
            if (op[0] == '-')
                (void)writeQueueAdvance(&test.queue, size);
            else
                ASSERT_EQ(test.add(size, op[urgent ? 1 : 0], urgent), kStatusSuccess);
        }
        std::string records;
        (void)test.gather();
        for (uint32_t i = 0; i < test.list.count; ++i) {
            const auto* const bytes = static_cast<char*>(test.list.entries[i].iov_base);
            records += (i != 0 ? " " : "") + lettersOf({bytes, test.list.entries[i].iov_len});
        }
        EXPECT_EQ(records, c.records) << c.ops;
    }
}

// Random messages, limits, sends and failing allocations: every byte of what was taken leaves once
// and in order, and the counts are those of what waits.
TEST(WriteQueue, SendsEachByteOnceInOrder) {
    Random random = {};
    const uint32_t sizes[] = {10, 200, 3'000, 40'000};
    TestQueue test;
    std::string expected, sent;
    uint32_t added = 0, finished = 0, deepest = 0;
    for (int step = 0; step < 3'000; ++step) {
        if (random() % 100 < (step < 2'000 ? 80 : 20)) {
            const uint32_t size = 1 + random() % sizes[random() % 4];
            const FailAlloc fail{.after = random() % 12};
            if (test.add(size, static_cast<char>(step)) == kStatusSuccess) {
                expected.append(size, static_cast<char>(step));
                ++added;
            }
        } else {
            const std::string next = test.gather(1 + random() % 20'000);
            const uint32_t bytes = random() % 2 == 0
                                       ? static_cast<uint32_t>(next.size())
                                       : random() % (static_cast<uint32_t>(next.size()) + 1);
            finished += writeQueueAdvance(&test.queue, bytes).messages;
            sent += next.substr(0, bytes);
        }
        deepest = std::max(deepest, test.waiting());
        ASSERT_EQ(writeQueueBytes(&test.queue), expected.size() - sent.size());
        ASSERT_EQ(test.queue.messages, added - finished);
        // The room that small ones don't use isn't kept.
        ASSERT_LT(test.queue.bufferBytes, expected.size() - sent.size() + 400'000) << step;
    }
    EXPECT_GT(deepest, 64u);
    while (!writeQueueIsEmpty(&test.queue)) {
        const std::string next = test.gather();
        (void)writeQueueAdvance(&test.queue, static_cast<uint32_t>(next.size()));
        sent += next;
    }
    EXPECT_TRUE(sent == expected);
    EXPECT_TRUE(test.queue.ring == nullptr || test.queue.ring->capacity <= 64u);
}

TEST(WriteQueue, ChecksTheAge) {
    const struct {
        const char* what;
        bool discards;
        double age;
        uint32_t byteLimit;
        double now;
        const char* report;  // level, what was dropped; a letter for each record that still waits
    } cases[] = {
        // Of 3000 bytes each: current at 10, waiting v and u (urgent, at 13), a at 10, b at 12.
        {"none is old yet", true, 2, 0, 12.49, "0: 0 of 0, vuab"},
        {"one is", true, 2, 0, 12.5, "1: 1 of 3000, vub"},
        {"all but the urgent ones", true, 2, 0, 15.49, "1: 2 of 6000, vu"},
        {"the urgent ones, too", true, 2, 0, 15.5, "1: 4 of 12000, "},
        {"age without a limit", true, 0, 0, 99, "0: 0 of 0, vuab"},
        {"at the limit", true, 2, 12000, 12.5, "1: 1 of 3000, vub"},
        {"above it", true, 0, 11999, 11, "3: 1 of 3000, uab"},
        {"far above it", true, 0, 3000, 11, "3: 4 of 12000, "},
        {"above it, kept", false, 2, 11999, 99, "3: 0 of 0, vuab"},
        {"old, kept", false, 2, 0, 12.5, "2: 0 of 0, vuab"},
        {"not old yet, kept", false, 2, 0, 12.49, "0: 0 of 0, vuab"},
    };
    for (const auto& c : cases) {
        TestQueue test(c.byteLimit);
        test.queue.discards = c.discards;
        test.queue.ageSeconds = c.age;
        ASSERT_EQ(test.add(3000, 'c', false, kWriteTimeUnknown), kStatusSuccess);
        writeQueueStamp(&test.queue, 10);
        ASSERT_EQ(test.add(3000, 'a', false, 10), kStatusSuccess);
        ASSERT_EQ(test.add(3000, 'b', false, 12), kStatusSuccess);
        ASSERT_EQ(test.add(3000, 'u', true, 13), kStatusSuccess);
        ASSERT_EQ(test.add(3000, 'v', true, 13), kStatusSuccess);
        const AgeReport report = writeQueueCheckAge(&test.queue, c.now);
        const std::string left = test.gather().substr(3000);
        std::ostringstream text;
        text << report.level << ": " << report.droppedMessages << " of " << report.droppedBytes
             << ", " << lettersOf(left);
        EXPECT_EQ(text.str(), c.report) << c.what;
        EXPECT_TRUE(report.waiting == 5 && test.queue.ringBytes == left.size()) << c.what;
    }
}

}  // namespace
