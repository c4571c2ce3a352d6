// Each type's value in wire form, written and read. Malformed ones from outside are refused with
// their status, without allocating for what isn't there and without reading a byte beyond them.

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/text.h"
#include "lib/msg/wire.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/message_values.h"

namespace {

constexpr int64_t kTwoTo39 = int64_t{1} << 39;
const Bytes kEmpty = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};  // a message

// What a decoder gives for messages is where they lie in the image.
bool holds(const Decoded& decoded, const FieldValue& value) {
    const pelmoMsgField& field = decoded.field;
    if (field.type != value.type || field.size != value.size || field.count != value.count) {
        return false;
    }
    if (field.type != FIELD_MSG && field.type != FIELD_MSGARRAY) return fieldHolds(field, value);
    const void* const single[] = {field.data.pointer};
    const auto* at = field.type == FIELD_MSG ? single : static_cast<const void* const*>(*single);
    return std::ranges::all_of(value.images, [&](const Bytes& image) {
        return std::memcmp(*at++, image.data(), image.size()) == 0;
    });
}

void expectBothWays(const FieldValue& value, uint8_t wireType, const Bytes& bytes) {
    SCOPED_TRACE(testing::Message() << "type " << +value.type << " bytes " << bytes.size());
    const pelmoMsgField field = value.field();
    const Encoded whole = encode(field, bytes.size());
    EXPECT_EQ(whole.status, kStatusSuccess);
    EXPECT_EQ(whole.image, Bytes{wireType} + bytes);
    EXPECT_EQ(whole.used, whole.image.size());
    for (const size_t room : {size_t{0}, bytes.size() / 2, bytes.size() - 1}) {
        if (room == bytes.size()) continue;
        const Encoded cut = encode(field, room);
        EXPECT_EQ(cut.status, kStatusNoMemory) << room;
        EXPECT_EQ(cut.image, Bytes{value.type} + Bytes(room, kUntouched)) << room;
        EXPECT_EQ(cut.used, 1u);
    }
    const Decoded read = decode(wireType, bytes);
    EXPECT_EQ(read.status, kStatusSuccess);
    EXPECT_TRUE(holds(read, value));
    EXPECT_EQ(read.used, bytes.size());
    for (size_t size = 0; size < bytes.size(); size += 1 + size / 100 * 977) {
        // A truth value may lack its byte: it isn't true then.
        const bool isSound = wireType == FIELD_BOOL && size == 1;
        EXPECT_EQ(decode(wireType, cut(bytes, size)).status,
                  isSound ? kStatusSuccess : kStatusCorruptMessage)
            << size;
    }
}

// Sizes about the borders of the size classes are the message model's.
TEST(Codec, WritesAndReadsKnownBytes) {
    const struct {
        SharedValue value;
        Bytes typeAndBytes;
    } cases[] = {
        {scalarValue(FIELD_I8, &pelmoFieldData::i8, int8_t{-128}), {11, 1, 0x80}},
        {scalarValue(FIELD_U8, &pelmoFieldData::u8, uint8_t{200}), {12, 1, 200}},
        {scalarValue(FIELD_I16, &pelmoFieldData::i16, int16_t{-2}), {11, 2, 0xff, 0xfe}},
        {scalarValue(FIELD_U16, &pelmoFieldData::u16, uint16_t{0x1234}), {12, 2, 0x12, 0x34}},
        {scalarValue(FIELD_I32, &pelmoFieldData::i32, INT32_MIN), {11, 4, 0x80, 0, 0, 0}},
        {scalarValue(FIELD_U32, &pelmoFieldData::u32, 0xfffefdfcu),
         {12, 4, 0xff, 0xfe, 0xfd, 0xfc}},
        {scalarValue(FIELD_I64, &pelmoFieldData::i64, int64_t{-2}),
         {11, 8, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe}},
        {scalarValue(FIELD_U64, &pelmoFieldData::u64, uint64_t{0x0102030405060708}),
         {12, 8, 1, 2, 3, 4, 5, 6, 7, 8}},
        {scalarValue(FIELD_F32, &pelmoFieldData::f32, -1.5f), {13, 4, 0xbf, 0xc0, 0, 0}},
        {scalarValue(FIELD_F64, &pelmoFieldData::f64, 1.5), {13, 8, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}},
        {scalarValue(FIELD_IPPORT16, &pelmoFieldData::ipPort16, hostOrder16(7500)),
         {10, 2, 0x1d, 0x4c}},
        {scalarValue(FIELD_IPADDR32, &pelmoFieldData::ipAddr32, hostOrder32(0x0a010203)),
         {10, 4, 10, 1, 2, 3}},
        {scalarValue(FIELD_BOOL, &pelmoFieldData::boolean, 1u), {9, 1, 1}},
        {noneValue(), {22, 0}},
        {dateTimeValue(-1, 999999000), {3, 8, 255, 255, 255, 255, 255, 0x0f, 0x42, 0x3f}},
        {dateTimeValue(-kTwoTo39, 1000), {3, 8, 0, 0, 0, 0, 0x80, 0, 0, 1}},
        {dateTimeValue(kTwoTo39 - 1, 0), {3, 8, 255, 255, 255, 255, 0x7f, 0, 0, 0}},
        {blockValue(FIELD_OPAQUE, {1, 0, 2}), {7, 3, 1, 0, 2}},
        {blockValue(FIELD_STRING, {'a', 'b'}), {8, 2, 'a', 'b'}},
        {subjectValue("A.B"), {2, 121, 0, 9, 2, 3, 'A', 0, 3, 'B', 0}},
        {numbersValue<uint8_t>(35, {}), {35, 0}},
        {numbersValue<int16_t>(36, {1, -2}), {36, 4, 0, 1, 0xff, 0xfe}},
        {numbersValue<int64_t>(40, {}), {40, 0}},
        {numbersValue<float>(44, {1.5f, -0.0f}), {44, 8, 0x3f, 0xc0, 0, 0, 0x80, 0, 0, 0}},
        {stringArrayValue({"", "ab"}), {48, 8, 0, 0, 0, 2, 0, 'a', 'b', 0}},
        {messageValue(kEmpty), Bytes{1, 122} + kEmpty},
        {messageArrayValue({kEmpty, kEmpty}), Bytes{49, 20, 0, 0, 0, 2} + kEmpty + kEmpty},
    };
    for (const auto& [value, all] : cases) {
        expectBothWays(*value, all[0], Bytes(all.begin() + 1, all.end()));
    }
}

TEST(Codec, RefusesToWriteWhatTheTypeDoesNotHave) {
    const char* const texts[] = {"ab", "c"};
    const auto date = [](uint32_t size, int64_t seconds, uint32_t nanoseconds) -> pelmoMsgField {
        const pelmoMsgDateTime time = {seconds, nanoseconds};
        return {.size = size, .data = {.dateTime = time}, .type = FIELD_DATETIME};
    };
    const SharedValue messages[] = {messageValue(kEmpty), messageArrayValue({kEmpty})};
    std::vector<pelmoMsgField> fields = {
        date(11, 0, 0),
        date(12, kTwoTo39, 0),
        date(12, -kTwoTo39 - 1, 0),
        date(12, 0, 1000000000),
        fieldOf(FIELD_SUBJECT, 3, "\0\4"),  // longer by its own head
        fieldOf(FIELD_SUBJECT, 1, "\0\4"),
        fieldOf(FIELD_SUBJECT, 4, "\0\4\1\1"),
        fieldOf(FIELD_STRINGARRAY, 8, texts, 2),  // takes 9
        fieldOf(FIELD_STRINGARRAY, 10, texts, 2),
        fieldOf(FIELD_STRINGARRAY, 3, texts, 0),
    };
    for (const SharedValue& value : messages) {
        fields.push_back(value->field());
        ++fields.back().size;
    }
    for (uint8_t type = FIELD_I8; type <= FIELD_MSGARRAY; ++type) {
        if (fieldEncoders[type] == nullptr || type == FIELD_NONE) continue;
        const bool isArray = type >= FIELD_I8ARRAY;
        if (isArray) fields.push_back(fieldOf(type, type < FIELD_I16ARRAY ? 1 : 8, nullptr));
        for (const uint32_t size : {0u, 3u, 9u})
            if (type < FIELD_XML) fields.push_back(fieldOf(type, size, texts));
    }
    for (const pelmoMsgField& wrong : fields) {
        EXPECT_EQ(encode(wrong, 100).status, kStatusInvalidArgument)
            << int{wrong.type} << " of " << wrong.size;
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
            const Bytes part = cut(bytes, size);
            WireRecord record{};
            const bool whole = size == bytes.size() && next != 0;
            ASSERT_EQ(wireRecordRead(part.data(), part.data() + size, record),
                      whole ? part.data() + next : nullptr);
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
            EXPECT_EQ(cut(encoded.image, encoded.used),
                      Bytes{FIELD_XML} + documentValue(size, stream));
            EXPECT_EQ(encode(value->field(), need - 1).status, kStatusNoMemory);
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
        {"cut", documentValue(5, cut(stream, stream.size() - 1)), {}, 1},
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
