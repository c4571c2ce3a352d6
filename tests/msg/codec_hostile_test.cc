// Malformed values from outside: refused with their status, without allocating for what isn't there
// and without reading a byte beyond them.

#include <gtest/gtest.h>
#include <zlib.h>

#include "lib/msg/wire.h"
#include "tests/support/codec_run.h"
#include "tests/support/fail_alloc.h"

namespace {

// A count or length is believed only where the bytes bear it out.
TEST(CodecHostile, RefusesToReadWhatIsMalformed) {
    const Bytes empty = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};
    const struct {
        const char* what;
        uint8_t type;
        Bytes bytes;
        pelmoStatus status;
    } cases[] = {
        {"int of 0", 11, {0}, kStatusInvalidSize},
        {"int of 16", 12, Bytes(17, 16), kStatusInvalidSize},
        {"address of 8", 10, {8, 0, 0, 0, 0, 0, 0, 0, 0}, kStatusInvalidSize},
        {"date of 9", 3, {9, 0, 0, 0, 0, 0, 0, 0, 0, 0}, kStatusInvalidSize},
        {"opaque class 120", 7, {120}, kStatusInvalidSize},
        {"array class 255", 38, {255}, kStatusInvalidSize},
        {"document class 120", 47, {120}, kStatusInvalidSize},
        {"opaque prefix below its width", 7, {121, 0, 1}, kStatusCorruptMessage},
        {"array of more than there is", 38, {122, 255, 255, 255, 255, 1}, kStatusCorruptMessage},
        {"subject class 122", 2, {122, 0, 9, 2, 3, 'A', 0, 3, 'B', 0}, kStatusCorruptMessage},
        {"subject too long", 2, {121, 0, 10, 2, 3, 'A', 0, 3, 'B', 0}, kStatusCorruptMessage},
        {"subject's element too long", 2, {121, 0, 6, 1, 4, 'A', 0}, kStatusCorruptMessage},
        {"message's magic", 1, {122, 0, 0, 0, 8, 0x99, 0x55, 0xee, 0xab}, kStatusCorruptMessage},
        {"message of 7", 1, {122, 0, 0, 0, 7, 0x99, 0x55, 0xee, 0xaa}, kStatusCorruptMessage},
        {"strings without a count", 48, {3, 0, 0, 0}, kStatusCorruptMessage},
        {"a string too few", 48, {6, 0, 0, 0, 2, 'a', 0}, kStatusCorruptMessage},
        {"a string too many", 48, {6, 0, 0, 0, 1, 0, 0}, kStatusCorruptMessage},
        {"string without NUL", 48, {5, 0, 0, 0, 1, 'a'}, kStatusCorruptMessage},
        {"four thousand million strings", 48, {6, 255, 255, 255, 255, 0, 0}, kStatusCorruptMessage},
        {"a message too many", 49, Bytes{20, 0, 0, 0, 1} + empty + empty, kStatusCorruptMessage},
        {"bytes after the messages", 49, Bytes{13, 0, 0, 0, 1} + empty + Bytes{0},
         kStatusCorruptMessage},
        {"element's magic", 49, {12, 0, 0, 0, 1, 0, 0, 0, 8, 9, 9, 9, 9}, kStatusCorruptMessage},
        {"element of 0",
         49,
         {12, 0, 0, 0, 1, 0, 0, 0, 0, 0x99, 0x55, 0xee, 0xaa},
         kStatusCorruptMessage},
        {"messages by the million", 49, Bytes{12, 0x20, 0, 0, 1} + empty, kStatusCorruptMessage},
        {"document without inner prefix", 47, {0}, kStatusCorruptMessage},
        {"document with half of it", 47, {2, 121, 0}, kStatusCorruptMessage},
    };
    for (const auto& [what, type, bytes, status] : cases) {
        SCOPED_TRACE(what);
        FailAlloc count{.after = kNeverFails};
        EXPECT_EQ(decode(type, bytes).status, status);
        allocationsHeal();
        EXPECT_LE(allocationsCounted(), type == FIELD_XML ? 1u : 0u);
    }
}

// A head that is sound is too short as soon as a byte is missing.
TEST(CodecHostile, ReadsHeadsOfRecordsOrRefusesThem) {
    const struct {
        Bytes bytes;
        size_t next;  // 0: refused
        WireRecord head = {};
    } cases[] = {
        {{0, 22, 0}, 3},                             // no name
        {{1, 0, 22, 0}, 4, {1, 1, 0}},               // an empty one
        {{3, 0, 'b', 0, 22, 0}, 6, {1, 3, 0x6200}},  // a NUL where an id begins
        {{4, 'a', 0, 0, 7, 22, 0}, 7, {2, 4, 7}},    // a name with an id
        {Bytes{129} + Bytes(126, 'n') + Bytes{0, 1, 2, 22, 0}, 132, {127, 129, 0x0102}},
        {Bytes{255} + Bytes(254, 'n') + Bytes{0, 22, 0}, 258, {255, 255, 0}},
        {{0, 7, 2, 9, 9}, 5},                // a value
        {{0, 7, 121, 0, 3, 9}, 6},           // of a 16-bit size
        {{0, 7, 122, 0, 0, 0, 6, 9, 9}, 9},  // of a 32-bit size
        {{0, 7, 121, 0, 0}, 3},              // one below its own width skips as much as it says
        {{0, 7, 122, 0, 0, 0, 3}, 6},        //
        {{2, 'a', 'b', 22, 0}, 0},           // a name without its NUL
        {{4, 0, 'a', 'b', 'c', 22, 0}, 0},   // a NUL too early
        {Bytes{0, 7, 120} + Bytes(130), 0},  // size classes that aren't used
        {Bytes{0, 7, 123} + Bytes(130), 0},  //
        {{0, 7, 122, 255, 255, 255, 255, 9}, 0},  // the largest size
    };
    for (const auto& [bytes, next, head] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        for (size_t size = 1; size <= bytes.size(); ++size) {
            const Bytes cut = firstBytes(bytes, size);
            WireRecord record{};
            const bool whole = size == bytes.size() && next != 0;
            ASSERT_EQ(wireRecordRead(cut.data(), cut.data() + size, record),
                      whole ? cut.data() + next : nullptr);
            if (!whole) continue;
            EXPECT_EQ(record.nameSize, head.nameSize);
            EXPECT_EQ(record.nameAreaSize, head.nameAreaSize);
            EXPECT_EQ(record.id, head.id);
        }
    }
}

Bytes prefixOf(size_t size) {
    const Bytes bytes = wireBytes(*blockValue(FIELD_OPAQUE, Bytes(size)));
    return Bytes(bytes.data(), bytes.data() + bytes.size() - size);
}

Bytes deflated(const Bytes& document) {
    uLongf size = compressBound(document.size());
    Bytes stream(size);
    EXPECT_EQ(compress(stream.data(), &size, document.data(), document.size()), Z_OK);
    stream.resize(size);
    return stream;
}

Bytes documentValue(size_t declared, const Bytes& rest) {
    const Bytes inner = prefixOf(declared) + rest;
    return prefixOf(inner.size()) + inner;
}

TEST(CodecXml, TravelsCompressedWhateverThatGains) {
    for (const size_t size : {1u, 119u, 120u, 29999u, 30000u, 200000u}) {
        for (const Bytes& document : {Bytes(size, 'x'), patternBytes(size, 1)}) {
            SCOPED_TRACE(size);
            const SharedValue value = blockValue(FIELD_XML, document);
            const Bytes stream = deflated(document);
            const size_t need = 10 + stream.size();  // room for the largest prefixes
            const Encoded encoded = encode(value->field(), need);
            EXPECT_EQ(encoded.status, kStatusSuccess);
            EXPECT_EQ(firstBytes(encoded.image, encoded.used),
                      Bytes{FIELD_XML} + documentValue(size, stream));
            for (const size_t room : {size_t{0}, size_t{9}, size_t{10}, need - 1}) {
                EXPECT_EQ(encode(value->field(), room).status, kStatusNoMemory) << room;
            }
        }
    }
}

// No block is made for a stream that could never be as long as it claims.
TEST(CodecXml, IsReadWhereTheStreamHoldsWhatItClaims) {
    const Bytes hello = {'h', 'e', 'l', 'l', 'o'}, stream = deflated(hello);
    const Bytes bomb = deflated(Bytes(1 << 20, 'x'));
    Bytes damaged = stream;
    damaged.back() ^= 1;  // of the checksum
    const struct {
        const char* what;
        Bytes bytes, document;
        size_t blocks;
    } cases[] = {
        {"stored", documentValue(0, hello), hello, 1},
        {"nothing", documentValue(0, {}), {}, 0},
        {"compressed", documentValue(5, stream), hello, 1},
        {"with bytes after it", documentValue(5, stream + Bytes{1, 2, 3}), hello, 1},
        {"longer than it claims", documentValue(4, stream), {}, 1},
        {"shorter than it claims", documentValue(6, stream), {}, 1},
        {"cut", documentValue(5, firstBytes(stream, stream.size() - 1)), {}, 1},
        {"damaged", documentValue(5, damaged), {}, 1},
        {"no stream", documentValue(5, {}), {}, 0},
        {"much from little", documentValue(1 << 20, bomb), Bytes(1 << 20, 'x'), 1},
        {"beyond reach", documentValue(bomb.size() * 1100, bomb), {}, 0},
    };
    for (const auto& [what, bytes, document, blocks] : cases) {
        SCOPED_TRACE(what);
        FailAlloc count{.after = kNeverFails};
        const Decoded decoded = decode(FIELD_XML, bytes);
        allocationsHeal();
        const bool sound = !document.empty() || bytes == documentValue(0, {});
        ASSERT_EQ(decoded.status, sound ? kStatusSuccess : kStatusCorruptMessage);
        EXPECT_EQ(allocationsCounted(), blocks);
        if (!sound) continue;
        EXPECT_EQ(decoded.used, bytes.size());
        EXPECT_EQ(decoded.field.size, document.size());
        EXPECT_TRUE(document.empty() ||
                    fieldHolds(decoded.field, *blockValue(FIELD_XML, document)));
    }
}

}  // namespace
