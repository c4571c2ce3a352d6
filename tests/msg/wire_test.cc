// Size prefixes, heads of records, and what folded types unfold to. Bytes lie in vectors of their
// own size, so that the address sanitizer sees one read or written too far.

#include "lib/msg/wire.h"

#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kUntouched = 0xee;

TEST(SizePrefix, IsWrittenByTheClassOfTheValueAndReadBack) {
    const struct {
        uint64_t value;
        Bytes prefix;
    } cases[] = {
        {0, {0}},
        {1, {1}},
        {119, {119}},
        {120, {121, 0, 122}},
        {29999, {121, 0x75, 0x31}},
        {30000, {122, 0, 0, 0x75, 0x34}},
        {65535, {122, 0, 1, 0, 3}},
        {0xfffffffb, {122, 0xff, 0xff, 0xff, 0xff}},
    };
    for (const auto& [value, prefix] : cases) {
        SCOPED_TRACE(value);
        EXPECT_EQ(sizePrefixBytes(value), prefix.size());
        EXPECT_EQ(sizePrefixedLength(value), value + prefix.size());

        for (size_t room = 0; room <= prefix.size(); ++room) {
            Bytes written(room, kUntouched);
            WriteCursor out{written.data(), written.data() + room};
            const bool fits = room == prefix.size();
            EXPECT_EQ(writeSizePrefix(&out, value), fits ? kStatusSuccess : kStatusNoMemory);
            EXPECT_EQ(out.at, written.data() + (fits ? room : 0));
            EXPECT_EQ(written, fits ? prefix : Bytes(room, kUntouched));
        }
        ReadCursor in{prefix.data(), prefix.data() + prefix.size()};
        uint32_t read = 0;
        EXPECT_EQ(readSizePrefix(&in, &read), kStatusSuccess);
        EXPECT_EQ(read, value);
        EXPECT_EQ(in.at, in.end);
    }
}

TEST(SizePrefix, IsRefusedWhereNoneCanTellTheValue) {
    Bytes room(16, kUntouched);
    WriteCursor out{room.data(), room.data() + room.size()};
    for (const uint64_t value : {uint64_t{0xfffffffc}, uint64_t{1} << 32, UINT64_MAX}) {
        EXPECT_EQ(writeSizePrefix(&out, value), kStatusInvalidSize) << value;
    }
    EXPECT_EQ(out.at, room.data());
    EXPECT_EQ(writeSizePrefix(nullptr, 1), kStatusInvalidArgument);
}

TEST(SizePrefix, IsReadInAnyClassAndNeverPastTheEnd) {
    const struct {
        Bytes bytes;
        pelmoStatus status;
        uint32_t length;
    } cases[] = {
        {{}, kStatusCorruptMessage, 0},
        {{120}, kStatusInvalidSize, 0},
        {{123}, kStatusInvalidSize, 0},
        {{255}, kStatusInvalidSize, 0},
        {{121}, kStatusCorruptMessage, 0},
        {{121, 0}, kStatusCorruptMessage, 0},
        {{121, 0, 0}, kStatusCorruptMessage, 0},  // less than its own width
        {{121, 0, 1}, kStatusCorruptMessage, 0},
        {{121, 0, 2}, kStatusSuccess, 0},
        {{121, 0, 7}, kStatusSuccess, 5},
        {{121, 0xff, 0xff}, kStatusSuccess, 65533},
        {{122, 0, 0, 0}, kStatusCorruptMessage, 0},
        {{122, 0, 0, 0, 3}, kStatusCorruptMessage, 0},
        {{122, 0, 0, 0, 4}, kStatusSuccess, 0},
        {{122, 0, 0, 0, 5}, kStatusSuccess, 1},
    };
    for (const auto& [bytes, status, length] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        ReadCursor in{bytes.data(), bytes.data() + bytes.size()};
        uint32_t read = 77;
        EXPECT_EQ(readSizePrefix(&in, &read), status);
        EXPECT_EQ(read, status == kStatusSuccess ? length : 77);
        EXPECT_EQ(in.at == in.end, status == kStatusSuccess || bytes.empty());
    }
    const uint8_t zero = 0;
    ReadCursor in{&zero, &zero + 1};
    uint32_t read = 0;
    EXPECT_EQ(readSizePrefix(nullptr, &read), kStatusInvalidArgument);
    EXPECT_EQ(readSizePrefix(&in, nullptr), kStatusInvalidArgument);
}

Bytes longName(uint8_t chars, const Bytes& rest) {
    Bytes record(1 + chars, 'n');
    record.insert(record.end(), rest.begin(), rest.end());
    record[0] = static_cast<uint8_t>(record.size() - 3);  // type and size byte follow
    return record;
}

// A record that is sound is too short as soon as a byte is missing.
TEST(WireRecord, TellsTheNameAreaAndWhereTheNextOneBegins) {
    const struct {
        const char* what;
        Bytes bytes;
        WireRecord head;
    } cases[] = {
        {"no name", {0, 22, 0}, {0, 0, 0}},
        {"empty name", {1, 0, 22, 0}, {1, 1, 0}},
        {"name", {2, 'a', 0, 22, 0}, {2, 2, 0}},
        {"empty name with id", {3, 0, 0, 1, 22, 0}, {1, 3, 1}},
        {"name with id", {4, 'a', 0, 0, 7, 22, 0}, {2, 4, 7}},
        {"longest name with id", longName(126, {0, 1, 2, 22, 0}), {127, 129, 0x0102}},
        {"name beyond what is written", longName(254, {0, 22, 0}), {255, 255, 0}},
        {"value", {0, 7, 2, 9, 9}, {0, 0, 0}},
        {"16-bit size", {0, 7, 121, 0, 3, 9}, {0, 0, 0}},
        {"32-bit size", {0, 7, 122, 0, 0, 0, 6, 9, 9}, {0, 0, 0}},
    };
    for (const auto& [what, bytes, head] : cases) {
        SCOPED_TRACE(what);
        for (size_t size = 1; size <= bytes.size(); ++size) {
            const Bytes cut(bytes.data(), bytes.data() + size);
            WireRecord record{};
            const uint8_t* next = wireRecordRead(cut.data(), cut.data() + size, record);
            if (size < bytes.size()) {
                EXPECT_EQ(next, nullptr) << size;
                continue;
            }
            EXPECT_EQ(next, cut.data() + size);
            EXPECT_EQ(record.nameSize, head.nameSize);
            EXPECT_EQ(record.nameAreaSize, head.nameAreaSize);
            EXPECT_EQ(record.id, head.id);
        }
    }
}

TEST(WireRecord, IsRefusedWhereItCantBeTold) {
    const struct {
        const char* what;
        Bytes bytes;
        int next;  // -1: none
    } cases[] = {
        {"name without NUL", {2, 'a', 'b', 22, 0}, -1},
        {"NUL of the name too early", {4, 0, 'a', 'b', 'c', 22, 0}, -1},
        {"unused class 120", {0, 7, 120, 0, 0, 0, 0}, -1},
        {"unused class 123", {0, 7, 123, 0, 0, 0, 0}, -1},
        {"largest 32-bit size", {0, 7, 122, 0xff, 0xff, 0xff, 0xff, 9}, -1},
        {"16-bit size below its width", {0, 7, 121, 0, 0}, 3},  // skips what it tells
        {"32-bit size that cuts itself", {0, 7, 122, 0, 0, 0, 3}, 6},
        {"more behind it", {0, 7, 1, 9, 0, 22, 0}, 4},
    };
    for (const auto& [what, bytes, next] : cases) {
        WireRecord record{};
        const uint8_t* end = bytes.data() + bytes.size();
        const uint8_t* behind = wireRecordRead(bytes.data(), end, record);
        EXPECT_EQ(behind == nullptr ? -1 : static_cast<int>(behind - bytes.data()), next) << what;
    }
}

TEST(WireType, UnfoldsByTheSizeByteAlone) {
    const struct {
        Bytes types;
        Bytes unfolded;  // by sizes of 1, 2, 4 and 8
    } cases[] = {
        {{WIRE_INT, 14, 16, 18, 20}, {14, 16, 18, 20}},
        {{WIRE_UINT, 15, 17, 19, 21}, {15, 17, 19, 21}},
        {{WIRE_FLOAT, 24, 25}, {0, 0, 24, 25}},
        {{WIRE_NETINT, 26, 27}, {0, 26, 27, 0}},
    };
    for (const auto& [types, unfolded] : cases) {
        for (const uint8_t type : types) {
            for (unsigned size = 0; size < 256; ++size) {
                const bool known = size == 1 || size == 2 || size == 4 || size == 8;
                EXPECT_EQ(wireApplicationType(type, static_cast<uint8_t>(size)),
                          known ? unfolded[static_cast<size_t>(std::countr_zero(size))] : 0);
            }
        }
    }
    EXPECT_EQ(wireApplicationType(200, 3), 200);
}

}  // namespace
