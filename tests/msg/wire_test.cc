// Heads of records; the codecs' tests see to size prefixes and to what types unfold to. Bytes
// lie in vectors of their own size, so that the address sanitizer sees one read too far.

#include "lib/msg/wire.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes longName(uint8_t chars, const Bytes& rest) {
    Bytes record(1 + chars, 'n');
    record.insert(record.end(), rest.begin(), rest.end());
    record[0] = static_cast<uint8_t>(record.size() - 3);  // type and size byte follow
    return record;
}

// A record that is sound is too short as soon as a byte is missing.
TEST(WireRecord, TellsTheNameAreaAndWhereTheNextOneBegins) {
    const struct {
        Bytes bytes;
        WireRecord head;
    } cases[] = {
        {{0, 22, 0}, {0, 0, 0}},                                // no name
        {{1, 0, 22, 0}, {1, 1, 0}},                             // an empty one
        {{2, 'a', 0, 22, 0}, {2, 2, 0}},                        // one without an id
        {{3, 0, 0, 1, 22, 0}, {1, 3, 1}},                       // an empty one with an id
        {{3, 0, 'b', 0, 22, 0}, {1, 3, 0x6200}},                // a NUL where an id begins
        {{4, 'a', 0, 0, 7, 22, 0}, {2, 4, 7}},                  // a name with an id
        {longName(126, {0, 1, 2, 22, 0}), {127, 129, 0x0102}},  // the longest of them
        {longName(254, {0, 22, 0}), {255, 255, 0}},             // beyond what is written
        {{0, 7, 2, 9, 9}, {0, 0, 0}},                           // a value
        {{0, 7, 121, 0, 3, 9}, {0, 0, 0}},                      // of a 16-bit size
        {{0, 7, 122, 0, 0, 0, 6, 9, 9}, {0, 0, 0}},             // of a 32-bit size
    };
    for (const auto& [bytes, head] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        for (size_t size = 1; size <= bytes.size(); ++size) {
            const Bytes cut(bytes.data(), bytes.data() + size);
            WireRecord record{};
            const uint8_t* next = wireRecordRead(cut.data(), cut.data() + size, record);
            EXPECT_EQ(next, size == bytes.size() ? cut.data() + size : nullptr);
            if (next == nullptr) continue;
            EXPECT_EQ(record.nameSize, head.nameSize);
            EXPECT_EQ(record.nameAreaSize, head.nameAreaSize);
            EXPECT_EQ(record.id, head.id);
        }
    }
}

TEST(WireRecord, IsRefusedWhereItCantBeTold) {
    const struct {
        Bytes bytes;
        int next;  // -1: none
    } cases[] = {
        {{2, 'a', 'b', 22, 0}, -1},                // a name without its NUL
        {{4, 0, 'a', 'b', 'c', 22, 0}, -1},        // a NUL too early
        {{0, 7, 120, 0, 0, 0, 0}, -1},             // size classes that aren't used
        {{0, 7, 123, 0, 0, 0, 0}, -1},             //
        {{0, 7, 122, 255, 255, 255, 255, 9}, -1},  // the largest size
        {{0, 7, 121, 0, 0}, 3},                    // one below its own width skips what it tells
        {{0, 7, 122, 0, 0, 0, 3}, 6},              //
        {{0, 7, 1, 9, 0, 22, 0}, 4},               // more behind it
    };
    for (const auto& [bytes, next] : cases) {
        WireRecord record{};
        const uint8_t* end = bytes.data() + bytes.size();
        const uint8_t* behind = wireRecordRead(bytes.data(), end, record);
        EXPECT_EQ(behind == nullptr ? -1 : static_cast<int>(behind - bytes.data()), next)
            << testing::PrintToString(bytes);
    }
}

}  // namespace
