// Each type's value in wire form, written and read. Malformed ones from outside are refused with
// their status, without allocating for what isn't there and without reading a byte beyond them.

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/text.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/message_values.h"

namespace {

const Bytes kEmpty = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};  // a message

TEST(Codec, WritesAndReadsEachTypeToTheByte) {
    std::vector<SharedValue> values = {
        noneValue(),
        numbersValue<uint8_t>(FIELD_U8ARRAY, {}),
        numbersValue<int64_t>(FIELD_I64ARRAY, {}),
        messageValue(imageOf({recordOf("n", 1, *noneValue())})),
        messageArrayValue({kEmpty, kEmpty}),
    };
    for (uint32_t kind = 0; kind < kSimpleKinds; ++kind) {
        for (const uint32_t number : {0u, 1u, 0x80000001u, UINT32_MAX}) {
            values.push_back(simpleValue(kind, number));
        }
    }
    for (const SharedValue& value : values) {
        const Bytes bytes = wireBytes(*value);
        const uint8_t wireType = recordOf(nullptr, 0, *value)[1];
        SCOPED_TRACE(testing::Message() << "type " << +value->type << " bytes " << bytes.size());
        const pelmoMsgField field = value->field();
        const Encoded whole = encode(field, bytes.size());
        EXPECT_EQ(whole.status, kStatusSuccess);
        EXPECT_EQ(whole.image, Bytes{wireType} + bytes);
        EXPECT_EQ(whole.used, whole.image.size());
        for (const size_t room : {size_t{0}, bytes.size() / 2, bytes.size() - 1}) {
            if (room == bytes.size()) continue;
            const Encoded cut = encode(field, room);
            EXPECT_EQ(cut.status, kStatusNoMemory) << room;
            EXPECT_EQ(cut.image, Bytes{value->type} + Bytes(room, kUntouched)) << room;
            EXPECT_EQ(cut.used, 1u);
        }
        const Decoded read = decode(wireType, bytes);
        EXPECT_EQ(read.status, kStatusSuccess);
        // What a decoder gives for messages is where they are in the image.
        EXPECT_TRUE(!value->images.empty() || fieldHolds(read.field, *value));
        EXPECT_EQ(read.used, bytes.size());
        for (size_t size = 0; size < bytes.size(); size += 1 + size / 100 * 977) {
            // A truth value may lack its byte: it isn't true then.
            const bool isSound = wireType == FIELD_BOOL && size == 1;
            EXPECT_EQ(decode(wireType, cut(bytes, size)).status,
                      isSound ? kStatusSuccess : kStatusCorruptMessage)
                << size;
        }
    }
}

TEST(Codec, WritesWhatTheReaderSeesOtherwise) {
    const SharedValue two = scalarValue(FIELD_BOOL, &pelmoFieldData::boolean, 2u);
    EXPECT_EQ(encode(fieldOf(FIELD_STRING, 0, "ab"), 4).image, (Bytes{8, 3, 'a', 'b', 0}));
    EXPECT_EQ(encode(two->field(), 2).image, (Bytes{9, 1, 1}));
    EXPECT_EQ(encode(dateTimeValue(0, 999999999)->field(), 9).image,
              (Bytes{3, 8, 0, 0, 0, 0, 0, 0x0f, 0x42, 0x3f}));
}

pelmoStatus becomeUnterminated(pelmoMsgField* field, uint8_t, pelmoDisposition* disposition) {
    void* block = std::malloc(3);
    if (block == nullptr) return kStatusNoMemory;
    std::memcpy(block, "abc", 3);
    field->type = FIELD_STRING;
    field->size = 3;
    field->data.pointer = block;
    *disposition = kDataOwnedBlock;
    return kStatusSuccess;
}

// A text that a converter of the application leaves without its NUL is shown as far as it goes.
TEST(Codec, AsksTheApplicationForItsTypesFrom128) {
    const pelmoFieldDecoder decode = fieldDecoders[FIELD_OPAQUE];
    EXPECT_EQ(pelmoMsg_SetHandlers(127, nullptr, decode, nullptr), kStatusReservedHandler);
    EXPECT_EQ(pelmoMsg_SetOpaqueHandlers(127), kStatusReservedHandler);
    const struct {
        const char* text;
        pelmoFieldDecoder decoder;
        pelmoFieldConverter converter;
    } cases[] = {
        {"{NULL=abc}", decode, becomeUnterminated},
        {"{NULL=[NO CONVERTER AVAILABLE]}", decode, fieldConverters[FIELD_I32ARRAY]},
        {"{NULL=[NO CONVERTER AVAILABLE]}", decode, nullptr},
        {"{NULL=[NO DECODER AVAILABLE]}", nullptr, nullptr},
        {"{NULL=[3 opaque bytes]}", decode, fieldConverters[FIELD_OPAQUE]},
    };
    const Message msg = newMessage();
    ASSERT_EQ(pelmoMsg_SetOpaqueHandlers(128), kStatusSuccess);
    const pelmoMsgField field = fieldOf(128, 3, "\1\2\3");
    ASSERT_EQ(pelmoMsg_AddField(msg.get(), &field), kStatusSuccess);
    for (const auto& [text, decoder, converter] : cases) {
        const char* shown = nullptr;
        ASSERT_EQ(pelmoMsg_SetHandlers(128, nullptr, decoder, converter), kStatusSuccess);
        ASSERT_EQ(pelmoMsg_ConvertToString(msg.get(), &shown), kStatusSuccess);
        EXPECT_STREQ(shown, text);
    }
}

// A count or length is believed only where the bytes bear it out.
TEST(CodecHostile, RefusesToReadWhatIsMalformed) {
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
        {"a message too many", 49, Bytes{20, 0, 0, 0, 1} + kEmpty + kEmpty, kStatusCorruptMessage},
        {"bytes after the messages", 49, Bytes{13, 0, 0, 0, 1} + kEmpty + Bytes{0},
         kStatusCorruptMessage},
        {"element's magic", 49, {12, 0, 0, 0, 1, 0, 0, 0, 8, 9, 9, 9, 9}, kStatusCorruptMessage},
        {"messages by the million", 49, Bytes{12, 0x20, 0, 0, 1} + kEmpty, kStatusCorruptMessage},
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

Bytes deflated(const Bytes& document) {
    uLongf size = compressBound(document.size());
    Bytes stream(size);
    EXPECT_EQ(compress(stream.data(), &size, document.data(), document.size()), Z_OK);
    stream.resize(size);
    return stream;
}

Bytes documentValue(size_t declared, const Bytes& rest) {
    const Bytes inner = wireBytes(*blockValue(FIELD_OPAQUE, Bytes(declared)));
    return wireBytes(*blockValue(FIELD_OPAQUE, cut(inner, inner.size() - declared) + rest));
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
            EXPECT_EQ(cut(encoded.image, encoded.used),
                      Bytes{FIELD_XML} + documentValue(size, stream));
            EXPECT_EQ(encode(value->field(), need - 1).status, kStatusNoMemory);
        }
    }
}

// No block is made for a stream that could never be as long as it claims.
TEST(CodecXml, IsReadWhereTheStreamHoldsWhatItClaims) {
    const Bytes hello = {'h', 'e', 'l', 'l', 'o'}, stream = deflated(hello);
    const Bytes much(1 << 20, 'x'), bomb = deflated(much);
    Bytes damaged = stream;
    damaged.back() ^= 1;  // of the checksum
    const struct {
        const char* what;
        Bytes bytes;
        const Bytes* document;
        size_t blocks = 1;
    } cases[] = {
        {"stored", documentValue(0, hello), &hello},
        {"with bytes after it", documentValue(5, stream + Bytes{1, 2, 3}), &hello},
        {"longer than it claims", documentValue(4, stream), nullptr},
        {"shorter than it claims", documentValue(6, stream), nullptr},
        {"cut", documentValue(5, cut(stream, stream.size() - 1)), nullptr},
        {"damaged", documentValue(5, damaged), nullptr},
        {"no stream", documentValue(5, {}), nullptr, 0},
        {"much from little", documentValue(1 << 20, bomb), &much},
        {"beyond reach", documentValue(bomb.size() * 1100, bomb), nullptr, 0},
    };
    for (const auto& [what, bytes, document, blocks] : cases) {
        SCOPED_TRACE(what);
        FailAlloc count{.after = kNeverFails};
        const Decoded decoded = decode(FIELD_XML, bytes);
        allocationsHeal();
        EXPECT_EQ(allocationsCounted(), blocks);
        ASSERT_EQ(decoded.status, document ? kStatusSuccess : kStatusCorruptMessage);
        if (document == nullptr) continue;
        EXPECT_EQ(decoded.used, bytes.size());
        EXPECT_TRUE(fieldHolds(decoded.field, *blockValue(FIELD_XML, *document)));
    }
    const Decoded nothing = decode(FIELD_XML, documentValue(0, {}));
    EXPECT_EQ(nothing.status + nothing.field.size, kStatusSuccess);
}

}  // namespace
