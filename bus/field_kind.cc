#include "bus/field_kind.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

#include "bus/date_text.h"
#include "programs/number.h"
#include "programs/text.h"

namespace {

constexpr uint8_t kDateTimeBytes = 12;  // seconds and nanoseconds, without what pads them

// The ways from text.

template <auto kMember>
const char* parseNumber(std::string_view text, FieldValue& out) {
    return numberParse(text, out.data.*kMember);
}

const char* parseTruth(std::string_view text, FieldValue& out) {
    if (text != "true" && text != "false") return "neither true nor false";
    out.data.boolean = text == "true" ? 1 : 0;
    return nullptr;
}

const char* parsePort(std::string_view text, FieldValue& out) {
    uint16_t port = 0;
    const char* fault = numberParse(text, port);
    if (fault == nullptr) out.data.ipPort16 = htons(port);
    return fault;
}

const char* parseAddress(std::string_view text, FieldValue& out) {
    in_addr address{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) {
        return "not an address such as 10.1.2.3";
    }
    out.data.ipAddr32 = address.s_addr;
    return nullptr;
}

const char* parseDate(std::string_view text, FieldValue& out) {
    return dateTextParse(text, out.data.dateTime);
}

const char* parseText(std::string_view text, FieldValue& out) {
    out.bytes = text;
    return nullptr;
}

const char* parseSubject(std::string_view text, FieldValue& out) {
    if (text.find('\0') != std::string_view::npos) return "a subject holds no NUL";
    return parseText(text, out);
}

const char* parseHex(std::string_view text, FieldValue& out) {
    return hexParse(text, out.bytes) ? nullptr : "not pairs of hexadecimal digits";
}

// The ways back.

template <auto kMember>
void printNumber(std::string& out, const FieldData& data) {
    char digits[32];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), data.*kMember).ptr;
    out.append(digits, end);
}

// The shortest digits that read back as the same number.
template <auto kMember>
void printReal(std::string& out, const FieldData& data) {
    const auto number = data.*kMember;
    if (std::isfinite(number)) return printNumber<kMember>(out, data);
    out += std::isnan(number) ? "\"NaN\"" : number > 0 ? "\"Infinity\"" : "\"-Infinity\"";
}

void printTruth(std::string& out, const FieldData& data) {
    out += data.boolean == 1 ? "true" : "false";  // as the library's own text has it
}

void printPort(std::string& out, const FieldData& data) {
    out += std::to_string(ntohs(data.ipPort16));
}

void printAddress(std::string& out, const FieldData& data) {
    char text[INET_ADDRSTRLEN];
    const in_addr address{data.ipAddr32};
    out += '"';
    out += inet_ntop(AF_INET, &address, text, sizeof text);
    out += '"';
}

using D = FieldData;
using enum FieldForm;

constexpr FieldKind kFieldKinds[] = {
    {"i8", FIELD_I8, 1, kNumber, FIELD_I8ARRAY, parseNumber<&D::i8>, printNumber<&D::i8>},
    {"u8", FIELD_U8, 1, kNumber, FIELD_U8ARRAY, parseNumber<&D::u8>, printNumber<&D::u8>},
    {"i16", FIELD_I16, 2, kNumber, FIELD_I16ARRAY, parseNumber<&D::i16>, printNumber<&D::i16>},
    {"u16", FIELD_U16, 2, kNumber, FIELD_U16ARRAY, parseNumber<&D::u16>, printNumber<&D::u16>},
    {"i32", FIELD_I32, 4, kNumber, FIELD_I32ARRAY, parseNumber<&D::i32>, printNumber<&D::i32>},
    {"u32", FIELD_U32, 4, kNumber, FIELD_U32ARRAY, parseNumber<&D::u32>, printNumber<&D::u32>},
    {"i64", FIELD_I64, 8, kNumber, FIELD_I64ARRAY, parseNumber<&D::i64>, printNumber<&D::i64>},
    {"u64", FIELD_U64, 8, kNumber, FIELD_U64ARRAY, parseNumber<&D::u64>, printNumber<&D::u64>},
    {"f32", FIELD_F32, 4, kReal, FIELD_F32ARRAY, parseNumber<&D::f32>, printReal<&D::f32>},
    {"f64", FIELD_F64, 8, kReal, FIELD_F64ARRAY, parseNumber<&D::f64>, printReal<&D::f64>},
    {"bool", FIELD_BOOL, 1, kTruth, 0, parseTruth, printTruth},
    {"string", FIELD_STRING, 0, kText, FIELD_STRINGARRAY, parseText, nullptr},
    {"datetime", FIELD_DATETIME, kDateTimeBytes, kText, 0, parseDate, nullptr},
    {"ip", FIELD_IPADDR32, 4, kText, 0, parseAddress, printAddress},
    {"port", FIELD_IPPORT16, 2, kNumber, 0, parsePort, printPort},
    {"subject", FIELD_SUBJECT, 0, kText, 0, parseSubject, nullptr},
    {"opaque", FIELD_OPAQUE, 0, kText, 0, parseHex, nullptr},
    {"xml", FIELD_XML, 0, kText, 0, parseText, nullptr},
    {"msg", FIELD_MSG, 0, kMessage, FIELD_MSGARRAY, nullptr, nullptr},
    {"none", FIELD_NONE, 0, kNothing, 0, nullptr, nullptr},
};

template <typename Test>
const FieldKind* findKind(Test test) {
    const auto* found = std::ranges::find_if(kFieldKinds, test);
    return found != std::end(kFieldKinds) ? found : nullptr;
}

}  // namespace

const FieldKind* fieldKindByName(std::string_view name) {
    return findKind([name](const FieldKind& type) { return name == type.name; });
}

const FieldKind* fieldKindByCode(uint8_t code) {
    return findKind([code](const FieldKind& type) {
        return type.code == code || (type.arrayCode == code && code != 0);
    });
}

std::string fieldKindNames() {
    std::string names;
    for (const FieldKind& type : kFieldKinds) {
        if (type.parse == nullptr) continue;
        if (!names.empty()) names += ", ";
        names += type.name;
    }
    return names;
}

pelmoStatus fieldAdd(
    pelmoMsg* msg, const FieldKind& type, const char* name, uint16_t id, const FieldValue& value) {
    // Packed subjects are the library's business.
    if (type.code == FIELD_SUBJECT) {
        return pelmoMsg_AddSubjectText(msg, name, value.bytes.c_str(), id);
    }
    pelmoMsgField field;
    field.name = name;
    field.id = id;
    field.type = type.code;
    field.size = type.sizeBytes;
    field.data = value.data;
    if (type.sizeBytes == 0 && type.form == kText) {
        if (value.bytes.size() >= UINT32_MAX) return kStatusInvalidSize;
        const bool hasNul = type.code == FIELD_STRING;
        field.size = static_cast<uint32_t>(value.bytes.size() + (hasNul ? 1 : 0));
        field.data.pointer = value.bytes.c_str();
    }
    return pelmoMsg_AddField(msg, &field);
}
