#include "lib/transport/ipq/write_queue.h"

#include <gtest/gtest.h>

#include <random>
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

    pelmoStatus add(const std::string& bytes, bool urgent = false, double now = 10) {
        constexpr uint32_t kOffset = 3;
        Buffer* const buffer = bufferCreate(static_cast<uint32_t>(bytes.size()) + kOffset);
        if (buffer == nullptr) return kStatusNoMemory;
        std::copy(bytes.begin(), bytes.end(), buffer->data + kOffset);
        const pelmoStatus status = writeQueueAdd(
            &queue, {buffer, kOffset, static_cast<uint32_t>(bytes.size()), 1, urgent}, now);
        bufferRelease(buffer);
        return status;
    }
    pelmoStatus add(uint32_t size, char fill, bool urgent = false, double now = 10) {
        return add(std::string(size, fill), urgent, now);
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
        return bytes;
    }
    [[nodiscard]] uint32_t waiting() const { return queue.ring != nullptr ? queue.ring->count : 0; }

    WriteQueue queue;
    iovec entries[1024];
    GatherList list = {.capacity = 1024, .count = 0, .total = 0, .entries = entries};
};

TEST(WriteQueue, CoalescesSmallMessages) {
    struct Case {
        std::vector<uint32_t> sizes;
        uint32_t records;
    };
    const Case cases[] = {
        {{2048, 2048}, 1},        // the tail is small, and so is the message
        {{2048, 2049}, 2},        // the message isn't
        {{2049, 2048}, 2},        // the tail isn't
        {{2049, 2048, 2048}, 2},  // the new tail is
        {{2048, 2048, 2048, 2048, 2048, 2048, 2048, 2048}, 1},     // 16384 bytes in all
        {{2048, 2048, 2048, 2048, 2048, 2048, 2048, 2047, 2}, 2},  // one more
        {{100, 5000, 100, 100}, 3},
    };
    for (const Case& c : cases) {
        TestQueue test;
        std::string expected;
        for (const uint32_t size : c.sizes) {
            const char fill = static_cast<char>('a' + expected.size() % 26);
            EXPECT_EQ(test.add(size, fill), kStatusSuccess);
            expected.append(size, fill);
        }
        EXPECT_EQ(test.gather(), expected);
        EXPECT_EQ(test.list.count, c.records) << c.sizes.size();
        EXPECT_EQ(test.queue.messages, c.sizes.size());
        EXPECT_EQ(writeQueueBytes(&test.queue), expected.size());
    }
}

// A current record of which little is left takes small messages; its sent bytes don't come again.
TEST(WriteQueue, CoalescesIntoWhatIsLeft) {
    TestQueue test;
    ASSERT_EQ(test.add(5000, 'a'), kStatusSuccess);
    EXPECT_TRUE(writeQueueAdvance(&test.queue, 2951).endsWithin);
    ASSERT_EQ(test.add(10, 'b'), kStatusSuccess);
    EXPECT_EQ(test.waiting(), 1u);
    EXPECT_EQ(writeQueueAdvance(&test.queue, 2049).messages, 1u);
    EXPECT_TRUE(writeQueueAdvance(&test.queue, 4).endsWithin);
    ASSERT_EQ(test.add(10, 'c'), kStatusSuccess);
    EXPECT_EQ(test.waiting(), 0u);
    EXPECT_EQ(test.gather(), "bbbbbbcccccccccc");
    EXPECT_EQ(writeQueueAdvance(&test.queue, 16).messages, 2u);
    EXPECT_TRUE(writeQueueIsEmpty(&test.queue));
}

TEST(WriteQueue, UrgentPassesWhatWaits) {
    TestQueue test;
    for (const char* text : {"current", "tail"})
        ASSERT_EQ(test.add(text + std::string(3000, '.')), kStatusSuccess);
    ASSERT_EQ(test.add(1, 'u', true), kStatusSuccess);
    ASSERT_EQ(test.add(1, 'v', true), kStatusSuccess);
    EXPECT_EQ(test.gather(3010), "current" + std::string(3000, '.') + "vut");
    (void)writeQueueAdvance(&test.queue, 3007);
    EXPECT_EQ(test.gather(5), "vutai");

    // A small message that isn't urgent doesn't join an urgent one that waits.
    TestQueue other;
    ASSERT_EQ(other.add(3000, 'c'), kStatusSuccess);
    ASSERT_EQ(other.add(1, 'u', true), kStatusSuccess);
    ASSERT_EQ(other.add(1, 'n'), kStatusSuccess);
    EXPECT_EQ(other.waiting(), 2u);
}

// Random messages, limits and sends: every byte once and in order, and the counts are those of what
// waits.
TEST(WriteQueue, SendsEachByteOnceInOrder) {
    auto random = [engine = std::mt19937(2)]() mutable { return static_cast<uint32_t>(engine()); };
    const uint32_t sizes[] = {10, 200, 3'000, 40'000};
    TestQueue test;
    std::string expected, sent;
    uint32_t added = 0, finished = 0, deepest = 0;
    for (int step = 0; step < 3'000; ++step) {
        if (random() % 100 < (step < 2'000 ? 80 : 20)) {
            const uint32_t size = 1 + random() % sizes[random() % 4];
            ASSERT_EQ(test.add(size, static_cast<char>(step)), kStatusSuccess);
            expected.append(size, static_cast<char>(step));
            ++added;
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

// The list's capacity and the limit of bytes cut what is gathered.
TEST(WriteQueue, GathersWithinTheList) {
    TestQueue test;
    for (int i = 0; i < 1'100; ++i)
        ASSERT_EQ(test.add(2100, 'x'), kStatusSuccess);
    EXPECT_EQ(test.gather().size(), 1'024u * 2100);
    EXPECT_EQ(test.list.capacity, 1'024u);
    EXPECT_EQ(test.gather(4'196).size(), 4'196u);
    EXPECT_EQ(test.list.count, 2u);
}

TEST(WriteQueue, ChecksTheAge) {
    struct Case {
        const char* what;
        bool discards;
        double age;
        uint32_t byteLimit;
        double now;
        AgeReport report;
        std::string left;  // a letter for each record that waits
    };
    // Of 3000 bytes each: current at 10, waiting v and u (urgent, at 13), a at 10, b at 12.
    const Case cases[] = {
        {"none is old yet", true, 2, 0, 12.49, {0, 5, 0, 0}, "vuab"},
        {"one is", true, 2, 0, 12.5, {1, 5, 1, 3000}, "vub"},
        {"all but the urgent ones", true, 2, 0, 15.49, {1, 5, 2, 6000}, "vu"},
        {"the urgent ones, too", true, 2, 0, 15.5, {1, 5, 4, 12000}, ""},
        {"age without a limit", true, 0, 0, 99, {0, 5, 0, 0}, "vuab"},
        {"at the limit", true, 2, 12000, 12.5, {1, 5, 1, 3000}, "vub"},
        {"above it", true, 0, 11999, 11, {3, 5, 1, 3000}, "uab"},
        {"far above it", true, 0, 3000, 11, {3, 5, 4, 12000}, ""},
        {"above it, kept", false, 2, 11999, 99, {3, 5, 0, 0}, "vuab"},
        {"old, kept", false, 2, 0, 12.5, {2, 5, 0, 0}, "vuab"},
        {"not old yet, kept", false, 2, 0, 12.49, {0, 5, 0, 0}, "vuab"},
        {"no limits", false, 0, 0, 99, {0, 5, 0, 0}, "vuab"},
    };
    for (const Case& c : cases) {
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
        EXPECT_EQ(report.level, c.report.level) << c.what;
        EXPECT_EQ(report.waiting, c.report.waiting) << c.what;
        EXPECT_EQ(report.droppedMessages, c.report.droppedMessages) << c.what;
        EXPECT_EQ(report.droppedBytes, c.report.droppedBytes) << c.what;
        std::string left;
        const std::string waiting = test.gather().substr(3000);
        for (size_t at = 0; at < waiting.size(); at += 3000)
            left += waiting[at];
        EXPECT_EQ(left, c.left) << c.what;
        EXPECT_EQ(test.queue.ringBytes, waiting.size()) << c.what;
    }
}

TEST(WriteQueue, WithoutMemoryNothingChanges) {
    const size_t failing = eachAllocationFails([] {
        TestQueue test;
        std::string expected;
        for (const uint32_t size : {100u, 200u, 3000u, 4000u, 10u}) {
            const char fill = static_cast<char>('a' + size % 26);
            if (test.add(size, fill) == kStatusSuccess) expected.append(size, fill);
            EXPECT_EQ(writeQueueBytes(&test.queue), expected.size());
        }
        EXPECT_EQ(test.gather(), expected);
    });
    EXPECT_GT(failing, 10u);
}

}  // namespace
