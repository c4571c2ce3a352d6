// Conversions of number arrays, to arrays of other numbers and to text.

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "lib/msg/convert.h"

namespace {

struct ArrayType {
    uint8_t array;
    uint8_t element;
    uint32_t textBytes;  // the most that one element takes in the text, with its blank
};

constexpr ArrayType kArrayTypes[] = {
    {FIELD_I8ARRAY, FIELD_I8, 5},    {FIELD_U8ARRAY, FIELD_U8, 4},
    {FIELD_I16ARRAY, FIELD_I16, 7},  {FIELD_U16ARRAY, FIELD_U16, 6},
    {FIELD_I32ARRAY, FIELD_I32, 12}, {FIELD_U32ARRAY, FIELD_U32, 11},
    {FIELD_I64ARRAY, FIELD_I64, 22}, {FIELD_U64ARRAY, FIELD_U64, 21},
    {FIELD_F32ARRAY, FIELD_F32, 29}, {FIELD_F64ARRAY, FIELD_F64, 29},
};

constexpr double kTwoTo64 = 18446744073709551616.0;
constexpr uint64_t kMostTextBytes = INT32_MAX;

const ArrayType* arrayType(uint8_t type) {
    for (const ArrayType& row : kArrayTypes) {
        if (row.array == type) return &row;
    }
    return nullptr;
}

// Elements of 8 and 16 bits don't convert to 64 bits.
bool mayBecome(const ArrayType& from, const ArrayType& to) {
    const bool narrow = numberBytes(from.element) < 4;
    return !(narrow && (to.element == FIELD_I64 || to.element == FIELD_U64));
}

// Between signed and unsigned elements of 8 or 16 bits, the block stays the same and only the type
// changes.
bool onlyTypeChanges(const ArrayType& from, const ArrayType& to) {
    const uint32_t width = numberBytes(from.element);
    return width < 4 && width == numberBytes(to.element);
}

pelmoStatus becomeArray(pelmoMsgField& field,
                        const ArrayType& from,
                        const ArrayType& to,
                        pelmoDisposition& disposition) {
    const uint32_t fromBytes = numberBytes(from.element);
    const uint32_t toBytes = numberBytes(to.element);
    uint8_t* block = nullptr;
    if (field.count != 0) {
        block = static_cast<uint8_t*>(std::malloc(size_t{field.count} * toBytes));
        if (block == nullptr) return kStatusNoMemory;
        const auto* elements = static_cast<const uint8_t*>(field.data.pointer);
        for (size_t i = 0; i < field.count; ++i) {
            storeNumber(to.element, block + i * toBytes,
                        loadNumber(from.element, elements + i * fromBytes));
        }
    }
    field.type = to.array;
    field.size = toBytes;
    field.data.pointer = block;
    disposition = block != nullptr ? kDataOwnedBlock : kDataByValue;
    return kStatusSuccess;
}

// Returns the number of characters written.
int writeElement(char* at, size_t roomBytes, uint8_t type, const Number& number) {
    if (type == FIELD_F64) return std::snprintf(at, roomBytes, " %g", number.real);
    if (type == FIELD_F32) {
        const bool plain = number.real >= -kTwoTo64 && number.real <= kTwoTo64;
        return std::snprintf(at, roomBytes, plain ? " %f" : " %e", number.real);
    }
    if (type == FIELD_U64) {
        return std::snprintf(at, roomBytes, " %" PRIu64, static_cast<uint64_t>(number.integer));
    }
    return std::snprintf(at, roomBytes, " %" PRId64, number.integer);
}

// The blank before the first element is replaced by the opening bracket.
size_t writeElements(char* text, size_t textBytes, const pelmoMsgField& field, uint8_t element) {
    const uint32_t width = numberBytes(element);
    const auto* elements = static_cast<const uint8_t*>(field.data.pointer);
    size_t used = 0;
    for (size_t i = 0; i < field.count; ++i) {
        const Number number = loadNumber(element, elements + i * width);
        used += static_cast<size_t>(writeElement(text + used, textBytes - used, element, number));
    }
    text[0] = '[';
    if (used == 0) used = 1;
    text[used++] = ']';
    text[used++] = '\0';
    return used;
}

pelmoStatus becomeArrayText(pelmoMsgField& field,
                            const ArrayType& from,
                            pelmoDisposition& disposition) {
    const uint64_t mostBytes = uint64_t{field.count} * from.textBytes + 3;
    if (mostBytes > kMostTextBytes) return kStatusNoMemory;
    auto* text = static_cast<char*>(std::malloc(mostBytes));
    if (text == nullptr) return kStatusNoMemory;
    const size_t used = writeElements(text, mostBytes, field, from.element);
    void* shrunk = std::realloc(text, used);

    field.type = FIELD_STRING;
    field.size = static_cast<uint32_t>(used);
    field.count = 1;
    field.data.pointer = shrunk != nullptr ? shrunk : text;
    disposition = kDataOwnedBlock;
    return kStatusSuccess;
}

}  // namespace

PELMO_CONVERTER_BODY(convertArray) {
    const ArrayType* from = arrayType(field.type);
    if (from == nullptr) return kStatusConversionFailed;
    if (targetType == FIELD_STRING) return becomeArrayText(field, *from, disposition);

    const ArrayType* to = arrayType(targetType);
    if (to == nullptr || !mayBecome(*from, *to)) return kStatusConversionFailed;
    if (!onlyTypeChanges(*from, *to)) return becomeArray(field, *from, *to, disposition);
    field.type = to->array;
    disposition = kDataByValue;
    return kStatusSuccess;
}
