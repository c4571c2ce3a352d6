// Conversions of numbers that lose nothing, or refuse.

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>

#include "lib/msg/convert.h"

namespace {

// A number as the field has it: an integer of 65 bits, or a float.
struct Exact {
    bool isFloat;
    bool isNegative;     // of an integer
    uint64_t magnitude;  // of an integer
    double real;
};

constexpr double kTwoTo64 = 18446744073709551616.0;

bool signedType(uint8_t type) {
    return type == FIELD_I8 || type == FIELD_I16 || type == FIELD_I32 || type == FIELD_I64;
}

Exact fromSigned(int64_t value) {
    const auto bits = static_cast<uint64_t>(value);
    return {false, value < 0, value < 0 ? 0 - bits : bits, 0};
}

template <typename Value>
bool parseAll(std::string_view text, Value& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// A text of digits alone is an integer, and any other that is a number a float.
bool fromText(const pelmoMsgField& field, Exact& out) {
    if (field.data.pointer == nullptr) return false;
    std::string_view text(static_cast<const char*>(field.data.pointer), field.size);
    if (!text.empty() && text.back() == '\0') text.remove_suffix(1);
    const bool isNegative = text.starts_with('-');
    out = {false, isNegative, 0, 0};
    if (parseAll(text.substr(isNegative ? 1 : 0), out.magnitude)) return true;
    out.isFloat = true;
    return parseAll(text, out.real);
}

bool load(const pelmoMsgField& field, Exact& out) {
    if (field.type == FIELD_STRING) return fromText(field, out);
    if (field.type == FIELD_BOOL) {
        out = fromSigned(int64_t{field.data.boolean});
        return field.data.boolean <= 1;
    }
    if (!isNumberType(field.type)) return false;
    const Number number = loadNumber(field.type, &field.data);
    out = fromSigned(number.integer);
    if (field.type == FIELD_U64) out = {false, false, field.data.u64, 0};
    if (number.isFloat) out = {true, false, 0, number.real};
    return true;
}

// Makes a float that is an integer one, if 65 bits hold it.
bool becomeWhole(Exact& number) {
    if (!number.isFloat) return true;
    const double real = number.real;
    if (!(std::fabs(real) < kTwoTo64) || std::trunc(real) != real) return false;
    number = {false, real < 0, static_cast<uint64_t>(std::fabs(real)), 0};
    return true;
}

bool storeWhole(Exact number, uint8_t type, pelmoFieldData& out) {
    if (!becomeWhole(number)) return false;
    if (type == FIELD_BOOL) {
        if (number.magnitude > 1 || (number.isNegative && number.magnitude != 0)) return false;
        out.boolean = static_cast<uint32_t>(number.magnitude);
        return true;
    }
    const uint32_t bits = 8 * numberBytes(type) - (signedType(type) ? 1 : 0);
    const uint64_t most = UINT64_MAX >> (64 - bits);
    const uint64_t limit = !number.isNegative ? most : signedType(type) ? most + 1 : 0;
    if (number.magnitude > limit) return false;
    const uint64_t word = number.isNegative ? 0 - number.magnitude : number.magnitude;
    storeNumber(type, &out, {false, static_cast<int64_t>(word), 0});
    return true;
}

// The integer of a float of these mantissa bits has no more from its first one to its last one.
bool fitsMantissa(uint64_t magnitude, int bits) {
    if (magnitude == 0) return true;
    return 64 - __builtin_clzll(magnitude) - __builtin_ctzll(magnitude) <= bits;
}

bool storeReal(const Exact& number, uint8_t type, pelmoFieldData& out) {
    const bool isSingle = type == FIELD_F32;
    double real = number.real;
    if (!number.isFloat) {
        const int bits =
            isSingle ? std::numeric_limits<float>::digits : std::numeric_limits<double>::digits;
        if (!fitsMantissa(number.magnitude, bits)) return false;
        real = static_cast<double>(number.magnitude) * (number.isNegative ? -1 : 1);
    }
    if (!isSingle) {
        out.f64 = real;
        return true;
    }
    // A double beyond the range of float has no conversion; NaN compares unequal to itself.
    if (std::isfinite(real) && std::fabs(real) > std::numeric_limits<float>::max()) return false;
    out.f32 = static_cast<float>(real);
    return std::isnan(real) || double{out.f32} == real;
}

}  // namespace

pelmoStatus convertExactly(pelmoMsgField& field, uint8_t targetType) {
    if (field.type == targetType && targetType != FIELD_BOOL) return kStatusSuccess;
    Exact number{};
    if (!load(field, number)) return kStatusConversionFailed;
    const bool isReal = targetType == FIELD_F32 || targetType == FIELD_F64;
    pelmoFieldData data{};
    const bool fits =
        isReal ? storeReal(number, targetType, data) : storeWhole(number, targetType, data);
    if (!fits) return kStatusConversionFailed;
    field.data = data;
    field.type = targetType;
    field.count = 1;
    field.size = targetType == FIELD_BOOL ? sizeof data.boolean : numberBytes(targetType);
    return kStatusSuccess;
}
