#include "lib/transport/ipq/stream_cutter.h"

#include <gtest/gtest.h>

#include "tests/support/stream_run.h"
#include "tests/support/test.h"

namespace {

constexpr uint32_t kMost = 0x100000;

CutStream cutWhole(const std::string& stream) {
    return cutStream(stream, kReadBufferBytes, kMost, false, [] { return kMostReadBytes; });
}

TEST(StreamCutter, KnowsEveryUnit) {
    const std::string first = streamUnit(9, 'a');
    const std::string alive = streamUnit(8, 0);
    struct Case {
        std::string stream;
        size_t messages;
        CutVerdict verdict;
        uint32_t rest;
    };
    const Case cases[] = {
        {first + alive + first, 2, CutVerdict::kGoOn, 0},
        {alive, 0, CutVerdict::kGoOn, 0},
        {first + first + streamUnit(50, 'c').substr(0, 30), 2, CutVerdict::kGoOn, 30},
        {first + alive.substr(0, 7), 1, CutVerdict::kGoOn, 7},
        {first + streamUnit(7, 0), 1, CutVerdict::kBadSize, 0},
        {first + streamUnit(0, 0), 1, CutVerdict::kBadSize, 0},
        {first + streamUnit(kMost + 1, 0).substr(0, 8), 1, CutVerdict::kBadSize, 0},
        {streamUnit(kMost, 0).substr(0, 8), 0, CutVerdict::kGoOn, 8},
        {first + streamUnit(0, 0, 0) + first, 1, CutVerdict::kCloseNotice, 0},
        {first + streamUnit(1, 0, 0), 1, CutVerdict::kBadMagic, 0},
        {first + streamUnit(9, 0, kMessageMagic + 1), 1, CutVerdict::kBadMagic, 0},
    };
    for (const Case& c : cases) {
        const CutStream result = cutWhole(c.stream);
        EXPECT_EQ(result.messages, std::vector<std::string>(c.messages, first));
        EXPECT_EQ(result.verdict, c.verdict) << c.stream.size();
        EXPECT_EQ(result.rest, c.rest);
        EXPECT_EQ(cutStream(c.stream, 16, kMost, false, [] { return 1u; }), result);
        EXPECT_EQ(cutStream(c.stream, 16, kMost, true, [] { return 5u; }), result);
    }
}

// Messages of sizes about those of the buffers, in reads of any size.
TEST(StreamCutter, SplitsNeverChangeWhatComesOut) {
    Random random = {};
    const uint32_t sizes[] = {9, 100, 2'000, 33'000, kReadBufferBytes, 163'840, 163'841, 700'000};
    std::string stream;
    CutStream expected;
    for (int i = 0; i < 300; ++i) {
        const uint32_t most = sizes[i % 50 != 0 ? random() % 4 : random() % 8];
        const std::string unit = streamUnit(8 + random() % most, static_cast<char>(i));
        if (unit.size() > 8) expected.messages.push_back(unit);
        stream += unit;
    }
    for (const uint32_t mostSplit : {1u << 20, 200'000u, 50'000u, 3'000u}) {
        for (const bool oneUnit : {false, true}) {
            const CutStream result = cutStream(stream, kReadBufferBytes, kMost, oneUnit,
                                               [&] { return 1 + random() % mostSplit; });
            EXPECT_EQ(result, expected) << mostSplit;
            EXPECT_EQ(result.mostOver, 0u) << mostSplit;
            EXPECT_FALSE(result.heldRoom);
        }
    }
}

struct OneRead : NoCopy {
    OneRead() { cutterInit(&cutter, kReadBufferBytes, kMost); }
    ~OneRead() {
        std::vector<std::string> out;
        takeBatch(batch, out);
        dpaDestroy(batch);
        cutterFree(&cutter);
    }

    CutVerdict take(const std::string& bytes) {
        const std::span<uint8_t> room = cutterRoom(&cutter);
        if (room.size() < bytes.size()) return CutVerdict::kNoMemory;
        std::memcpy(room.data(), bytes.data(), bytes.size());
        return cutterTake(&cutter, static_cast<uint32_t>(bytes.size()), batch);
    }
    [[nodiscard]] const Buffer* bufferOf(uint32_t message) const {
        return static_cast<pelmoMsg*>(batch->items[message])->buffer;
    }

    StreamCutter cutter;
    Dpa* batch = dpaCreate(4);
};

TEST(StreamCutter, BoundsTheFirstMessageApart) {
    for (const bool isFirst : {true, false}) {
        OneRead read;
        read.cutter.mostFirstBytes = 100;
        if (!isFirst) {
            EXPECT_EQ(read.take(streamUnit(8, 0) + streamUnit(100, 'a')), CutVerdict::kGoOn);
        }
        EXPECT_EQ(read.take(streamUnit(101, 'a').substr(0, 8)),
                  isFirst ? CutVerdict::kBadSize : CutVerdict::kGoOn);
    }
}

TEST(StreamCutter, CopiesOnlySmallReads) {
    for (const uint32_t bytes : {kReadBufferBytes / 4, kReadBufferBytes / 4 + 1}) {
        OneRead read;
        ASSERT_EQ(
            read.take(streamUnit(100, 'a') + streamUnit(bytes - 120, 'b') + streamUnit(20, 'c')),
            CutVerdict::kGoOn);
        const bool copied = bytes <= kReadBufferBytes / 4;
        EXPECT_EQ(read.bufferOf(0)->size, copied ? bytes : kReadBufferBytes);
        EXPECT_EQ(read.bufferOf(0), read.bufferOf(2));
        EXPECT_EQ(read.cutter.buffer, nullptr);
    }
}

// What a head claims takes no memory, and neither does what waits for the rest of a few bytes.
TEST(StreamCutter, MemoryFollowsWhatHasCome) {
    OneRead read;
    const std::string unit = streamUnit(1'000'000, 'a');
    ASSERT_EQ(read.take(unit.substr(0, 10)), CutVerdict::kGoOn);
    EXPECT_LE(read.cutter.buffer->size, 64u);
    EXPECT_EQ(read.cutter.partials, 1u);
    size_t at = 10;
    uint32_t sizes = 0;
    for (uint32_t last = 0; at < unit.size() - 1;) {
        const size_t room = cutterRoom(&read.cutter).size();
        ASSERT_NE(room, 0u);
        EXPECT_LE(read.cutter.buffer->size, std::max<size_t>(2 * at, kMostReadBytes));
        if (std::exchange(last, read.cutter.buffer->size) != last) ++sizes;
        const size_t bytes = std::min({room, unit.size() - 1 - at, size_t{30'000}});
        ASSERT_EQ(read.take(unit.substr(at, bytes)), CutVerdict::kGoOn);
        at += bytes;
    }
    EXPECT_EQ(sizes, 4u);
    ASSERT_EQ(read.take(unit.substr(at)), CutVerdict::kGoOn);
    ASSERT_EQ(read.batch->count, 1u);
    EXPECT_EQ(read.bufferOf(0)->size, unit.size());
    (void)cutterRoom(&read.cutter);
    EXPECT_EQ(cutterTake(&read.cutter, 0, read.batch), CutVerdict::kGoOn);
    EXPECT_EQ(read.cutter.buffer, nullptr);
}

}  // namespace
