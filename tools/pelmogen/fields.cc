#include "tools/pelmogen/fields.h"

#include <array>
#include <bit>
#include <cstring>
#include <string>

namespace {

constexpr size_t kShortBytesMax = 119;
constexpr size_t kWordBytesMax = 29999;
constexpr uint8_t kPrefix16 = 121;
constexpr uint8_t kPrefix32 = 122;

constexpr uint8_t kWireFloat = 13;
constexpr uint8_t kF32Array = 44;
constexpr uint8_t kF64Array = 45;

bool isFloat(const FieldType& type) {
    return type.code == kWireFloat || type.code == kF32Array || type.code == kF64Array;
}

// Random bits, except for floats, which are an eighth of an integer: never infinite, the same on
// any machine.
void putNumber(ByteWriter& writer, const FieldType& type, Prng& prng) {
    uint64_t bits = prngNext(prng);
    if (isFloat(type)) {
        const int32_t eighths = static_cast<int32_t>(prngBelow(prng, 1 << 20)) - (1 << 19);
        bits = type.width == 4 ? std::bit_cast<uint32_t>(static_cast<float>(eighths) / 8)
                               : std::bit_cast<uint64_t>(static_cast<double>(eighths) / 8);
    }
    for (uint32_t i = type.width; i-- > 0;) {
        put8(writer, static_cast<uint8_t>(bits >> (8 * i)));
    }
}

void putScalar(ByteWriter& writer, const FieldType& type, Prng& prng) {
    put8(writer, type.width);
    putNumber(writer, type, prng);
}

void putBool(ByteWriter& writer, const FieldType&, Prng& prng) {
    put8(writer, 1);
    put8(writer, static_cast<uint8_t>(prngBelow(prng, 2)));
}

void putNone(ByteWriter& writer, const FieldType&, Prng&) {
    put8(writer, 0);
}

void putArray(ByteWriter& writer, const FieldType& type, Prng& prng) {
    const uint32_t count = prngBelow(prng, 17);
    putSizePrefix(writer, size_t{count} * type.width);
    for (uint32_t i = 0; i < count; ++i) {
        putNumber(writer, type, prng);
    }
}

void putRandomBytes(ByteWriter& writer, size_t sizeBytes, Prng& prng) {
    uint8_t* at = writerTake(writer, sizeBytes);
    if (at == nullptr) return;
    for (; sizeBytes >= 8; at += 8, sizeBytes -= 8) {
        const uint64_t word = prngNext(prng);
        storeBe32At(at, static_cast<uint32_t>(word >> 32));
        storeBe32At(at + 4, static_cast<uint32_t>(word));
    }
    for (uint64_t word = prngNext(prng); sizeBytes > 0; --sizeBytes, word >>= 8) {
        *at++ = static_cast<uint8_t>(word);
    }
}

void putOpaque(ByteWriter& writer, const FieldType&, Prng& prng) {
    const size_t sizeBytes = prngBelow(prng, 150);
    putSizePrefix(writer, sizeBytes);
    putRandomBytes(writer, sizeBytes, prng);
}

std::string randomText(Prng& prng, uint32_t lengthMax) {
    std::string text(prngBelow(prng, lengthMax + 1), ' ');
    for (char& character : text) {
        character = static_cast<char>('a' + prngBelow(prng, 26));
    }
    return text;
}

// Texts are mostly short; one in sixteen needs the longer prefix.
void putString(ByteWriter& writer, const FieldType&, Prng& prng) {
    const std::string text = randomText(prng, prngBelow(prng, 16) == 0 ? 200 : 24);
    putSizePrefix(writer, text.size() + 1);
    putText(writer, text);
}

// A date-time: 40 bits of seconds, then 24 bits of microseconds.
void putDateTime(ByteWriter& writer, const FieldType&, Prng& prng) {
    const uint32_t seconds = 1'600'000'000 + prngBelow(prng, 200'000'000);
    put8(writer, 8);
    putBe32(writer, seconds);
    putBe32(writer, prngBelow(prng, kMillion));
}

// The prefix byte is followed by the subject, whose length is the prefix's word: "REF.A" to
// "REF.Z".
void putSubjectValue(ByteWriter& writer, const FieldType&, Prng& prng) {
    uint8_t subject[] = {0, 11, 2, 5, 'R', 'E', 'F', 0, 3, 'A', 0};
    subject[9] = static_cast<uint8_t>('A' + prngBelow(prng, 26));
    put8(writer, kPrefix16);
    putBytes(writer, subject);
}

void putPlainMessage(ByteWriter& writer, Prng& prng) {
    const size_t start = writer.used;
    messageBegin(writer);
    for (uint32_t place = 1; place <= 2; ++place) {
        const std::span<const FieldType> types = fieldTypes();
        putField(writer, types[prngBelow(prng, 12)], place, prng);
    }
    messageEnd(writer, start);
}

// The prefix byte is followed by the message, whose length is the prefix's word.
void putMessageValue(ByteWriter& writer, const FieldType&, Prng& prng) {
    put8(writer, kPrefix32);
    putPlainMessage(writer, prng);
}

void putPrefixed(ByteWriter& writer, const ByteWriter& value) {
    putSizePrefix(writer, value.used);
    putBytes(writer, writtenSince(value, 0));
}

void putStringArray(ByteWriter& writer, const FieldType&, Prng& prng) {
    std::array<uint8_t, 256> room;
    ByteWriter value{room};
    const uint32_t count = prngBelow(prng, 8);
    putBe32(value, count);
    for (uint32_t i = 0; i < count; ++i) {
        putText(value, randomText(prng, 24));
    }
    putPrefixed(writer, value);
}

void putMessageArray(ByteWriter& writer, const FieldType&, Prng& prng) {
    std::array<uint8_t, 1024> room;
    ByteWriter value{room};
    const uint32_t count = prngBelow(prng, 4);
    putBe32(value, count);
    for (uint32_t i = 0; i < count; ++i) {
        putPlainMessage(value, prng);
    }
    putPrefixed(writer, value);
}

uint32_t adler32(std::string_view text) {
    uint32_t low = 1;
    uint32_t high = 0;
    for (const char character : text) {
        low = (low + static_cast<uint8_t>(character)) % 65521;
        high = (high + low) % 65521;
    }
    return high << 16 | low;
}

// A zlib stream of one stored block: any inflater takes it, and no deflater's version changes it.
void putStoredStream(ByteWriter& writer, std::string_view text) {
    const auto length = static_cast<uint16_t>(text.size());
    putBe16(writer, 0x7801);
    put8(writer, 1);
    putBe16(writer, __builtin_bswap16(length));
    putBe16(writer, __builtin_bswap16(static_cast<uint16_t>(~length)));
    putBytes(writer, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    putBe32(writer, adler32(text));
}

// Inner prefix: the document's length; 0 says that the document itself follows.
void putXml(ByteWriter& writer, const FieldType&, Prng& prng) {
    const std::string document = "<doc><a>" + randomText(prng, 40) + "</a></doc>";
    std::array<uint8_t, 256> room;
    ByteWriter value{room};
    if (prngBelow(prng, 4) == 0) {
        put8(value, 0);
        putBytes(value, {reinterpret_cast<const uint8_t*>(document.data()), document.size()});
    } else {
        putSizePrefix(value, document.size());
        putStoredStream(value, document);
    }
    putPrefixed(writer, value);
}

// The first twelve are plain: messages within messages are made of them.
constexpr FieldType kFieldTypes[] = {
    {"i8", 11, 1, putScalar},
    {"i16", 11, 2, putScalar},
    {"i32", 11, 4, putScalar},
    {"i64", 11, 8, putScalar},
    {"u8", 12, 1, putScalar},
    {"u16", 12, 2, putScalar},
    {"u32", 12, 4, putScalar},
    {"u64", 12, 8, putScalar},
    {"f32", kWireFloat, 4, putScalar},
    {"f64", kWireFloat, 8, putScalar},
    {"bool", 9, 1, putBool},
    {"string", 8, 0, putString},
    {"ipport16", 10, 2, putScalar},
    {"ipaddr32", 10, 4, putScalar},
    {"datetime", 3, 8, putDateTime},
    {"opaque", 7, 0, putOpaque},
    {"none", 22, 0, putNone},
    {"subject", 2, 0, putSubjectValue},
    {"msg", 1, 0, putMessageValue},
    {"i8array", 34, 1, putArray},
    {"u8array", 35, 1, putArray},
    {"i16array", 36, 2, putArray},
    {"u16array", 37, 2, putArray},
    {"i32array", 38, 4, putArray},
    {"u32array", 39, 4, putArray},
    {"i64array", 40, 8, putArray},
    {"u64array", 41, 8, putArray},
    {"f32array", kF32Array, 4, putArray},
    {"f64array", kF64Array, 8, putArray},
    {"xml", 47, 0, putXml},
    {"stringarray", 48, 0, putStringArray},
    {"msgarray", 49, 0, putMessageArray},
};

}  // namespace

std::span<const FieldType> fieldTypes() {
    return kFieldTypes;
}

void putFieldName(ByteWriter& writer, std::string_view name) {
    put8(writer, static_cast<uint8_t>(name.size() + 1));
    putText(writer, name);
}

void putField(ByteWriter& writer, const FieldType& type, uint32_t place, Prng& prng) {
    char name[32];
    const size_t typeLength = std::strlen(type.name);
    std::memcpy(name, type.name, typeLength);
    name[typeLength] = '_';
    size_t length = typeLength + 1;
    if (place >= 100) name[length++] = static_cast<char>('0' + place / 100 % 10);
    if (place >= 10) name[length++] = static_cast<char>('0' + place / 10 % 10);
    name[length++] = static_cast<char>('0' + place % 10);

    const bool hasId = place % 4 == 0;
    put8(writer, static_cast<uint8_t>(length + (hasId ? 3 : 1)));
    putText(writer, {name, length});
    if (hasId) putBe16(writer, static_cast<uint16_t>(place));
    put8(writer, type.code);
    type.putValue(writer, type, prng);
}

void putSizePrefix(ByteWriter& writer, size_t valueBytes) {
    if (valueBytes <= kShortBytesMax) {
        put8(writer, static_cast<uint8_t>(valueBytes));
    } else if (valueBytes <= kWordBytesMax) {
        put8(writer, kPrefix16);
        putBe16(writer, static_cast<uint16_t>(valueBytes + 2));
    } else {
        put8(writer, kPrefix32);
        putBe32(writer, static_cast<uint32_t>(valueBytes + 4));
    }
}

void messageBegin(ByteWriter& writer) {
    putBe32(writer, 0);
    putBe32(writer, kMessageMagic);
}

void messageEnd(ByteWriter& writer, size_t start) {
    if (writer.full) return;
    storeBe32At(writer.room.data() + start, static_cast<uint32_t>(writer.used - start));
}

void putFiller(ByteWriter& writer, size_t end, Prng& prng) {
    constexpr size_t kFrameBytes = 3;  // no name, type, short prefix
    if (end < writer.used + kFrameBytes) return;
    const size_t left = end - writer.used - kFrameBytes;
    size_t valueBytes = left;
    if (left > kShortBytesMax) valueBytes = left - 2 > kShortBytesMax ? left - 2 : kShortBytesMax;
    if (valueBytes > kWordBytesMax)
        valueBytes = left - 4 > kWordBytesMax ? left - 4 : kWordBytesMax;
    put8(writer, 0);
    put8(writer, 7);
    putSizePrefix(writer, valueBytes);
    putRandomBytes(writer, valueBytes, prng);
}
