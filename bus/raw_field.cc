#include "bus/raw_field.h"

namespace {

constexpr size_t kHeadBytes = 8;  // length and magic
constexpr uint8_t kShortMost = 119;
constexpr uint8_t kWord16 = 121;
constexpr uint8_t kWord32 = 122;

using Bytes = std::span<const uint8_t>;

uint32_t loadBig(Bytes bytes) {
    uint32_t number = 0;
    for (const uint8_t byte : bytes) {
        number = number << 8 | byte;
    }
    return number;
}

// Takes the value with its size prefix off the front; false where it doesn't fit.
bool takeValue(Bytes& rest, Bytes& value) {
    if (rest.empty()) return false;
    const uint8_t sizeClass = rest[0];
    rest = rest.subspan(1);
    size_t sizeBytes = sizeClass;
    size_t wordBytes = 0;
    if (sizeClass > kShortMost) {
        if (sizeClass != kWord16 && sizeClass != kWord32) return false;
        wordBytes = sizeClass == kWord16 ? 2 : 4;
        if (rest.size() < wordBytes) return false;
        sizeBytes = loadBig(rest.first(wordBytes));
        if (sizeBytes < wordBytes) return false;
    }
    if (rest.size() < sizeBytes) return false;
    value = rest.subspan(wordBytes, sizeBytes - wordBytes);
    rest = rest.subspan(sizeBytes);
    return true;
}

bool takeField(Bytes& rest, RawField& field) {
    const size_t areaBytes = rest[0];
    if (rest.size() < areaBytes + 2) return false;
    const Bytes area = rest.subspan(1, areaBytes);
    field = {};
    size_t nameBytes = areaBytes;
    // A NUL ahead of two more bytes is a name's end and an id. `rest[n]` is the last byte of a name
    // of n bytes, or what tells that there is none.
    if (areaBytes >= 2 && rest[areaBytes - 2] == 0) {
        nameBytes -= 2;
        field.id = static_cast<uint16_t>(loadBig(area.last(2)));
    }
    if (rest[nameBytes] != 0) return false;
    if (nameBytes != 0) field.name = reinterpret_cast<const char*>(area.data());
    field.type = rest[areaBytes + 1];
    rest = rest.subspan(areaBytes + 2);
    return takeValue(rest, field.value);
}

}  // namespace

pelmoStatus rawFieldGet(pelmoMsg* msg, uint32_t number, RawField& out) {
    const void* bytes = nullptr;
    uint32_t sizeBytes = 0;
    pelmoStatus status = pelmoMsg_GetAsBytes(msg, &bytes);
    if (status == kStatusSuccess) status = pelmoMsg_GetByteSize(msg, &sizeBytes);
    if (status != kStatusSuccess) return status;
    if (sizeBytes < kHeadBytes) return kStatusCorruptMessage;

    Bytes rest = Bytes(static_cast<const uint8_t*>(bytes), sizeBytes).subspan(kHeadBytes);
    for (uint32_t i = 0; !rest.empty(); ++i) {
        if (!takeField(rest, out)) return kStatusCorruptMessage;
        if (i == number) return kStatusSuccess;
    }
    return kStatusNotFound;
}
