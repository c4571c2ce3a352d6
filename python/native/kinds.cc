#include "python/native/kinds.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr Kind kKinds[] = {
    {"i8", FIELD_I8, 1, 'b', FIELD_I8ARRAY},
    {"u8", FIELD_U8, 1, 'B', FIELD_U8ARRAY},
    {"i16", FIELD_I16, 2, 'h', FIELD_I16ARRAY},
    {"u16", FIELD_U16, 2, 'H', FIELD_U16ARRAY},
    {"i32", FIELD_I32, 4, 'i', FIELD_I32ARRAY},
    {"u32", FIELD_U32, 4, 'I', FIELD_U32ARRAY},
    {"i64", FIELD_I64, 8, 'q', FIELD_I64ARRAY},
    {"u64", FIELD_U64, 8, 'Q', FIELD_U64ARRAY},
    {"f32", FIELD_F32, 4, 'f', FIELD_F32ARRAY},
    {"f64", FIELD_F64, 8, 'd', FIELD_F64ARRAY},
    {"bool", FIELD_BOOL, 0, 0, 0},
    {"string", FIELD_STRING, 0, 0, FIELD_STRINGARRAY},
    {"datetime", FIELD_DATETIME, 0, 0, 0},
    {"ip", FIELD_IPADDR32, 4, 0, 0},
    {"port", FIELD_IPPORT16, 2, 0, 0},
    {"subject", FIELD_SUBJECT, 0, 0, 0},
    {"opaque", FIELD_OPAQUE, 0, 0, 0},
    {"xml", FIELD_XML, 0, 0, 0},
    {"msg", FIELD_MSG, 0, 0, FIELD_MSGARRAY},
    {"none", FIELD_NONE, 0, 0, 0},
};

template <typename Test>
const Kind* findKind(Test test) {
    const auto* found = std::ranges::find_if(kKinds, test);
    return found != std::end(kKinds) ? found : nullptr;
}

}  // namespace

const Kind* kindByName(std::string_view name, bool& outArray) {
    outArray = name.ends_with("[]");
    if (outArray) name.remove_suffix(2);
    const bool array = outArray;
    return findKind(
        [=](const Kind& kind) { return kind.name == name && (!array || kind.arrayCode != 0); });
}

const Kind* kindByCode(uint8_t code, bool& outArray) {
    const Kind* kind = findKind([code](const Kind& row) {
        return row.code == code || (row.arrayCode == code && code != 0);
    });
    outArray = kind != nullptr && kind->code != code;
    return kind;
}

// Integers go by their size: "l" has 8 bytes here, and 4 in "<l".
const Kind* kindByFormat(const char* format, int64_t sizeBytes) {
    if (format == nullptr) format = "B";
    if (*format == '@' || *format == '=' || *format == '<') ++format;
    if (format[0] == '\0' || format[1] != '\0') return nullptr;
    const bool isSigned = std::strchr("bhilqn", *format) != nullptr;
    const bool isUnsigned = std::strchr("BHILQN", *format) != nullptr;
    const bool isReal = *format == 'f' || *format == 'd';
    if (!isSigned && !isUnsigned && !isReal) return nullptr;
    return findKind([=](const Kind& kind) {
        if (kind.format == 0 || kind.sizeBytes != sizeBytes) return false;
        if (isReal) return kind.format == *format;
        return std::strchr(isSigned ? "bhiq" : "BHIQ", kind.format) != nullptr;
    });
}
