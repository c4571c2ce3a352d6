#include "programs/field_kind.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

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
void printNumber(std::string& out, const pelmoFieldData& data) {
    char digits[32];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), data.*kMember).ptr;
    out.append(digits, end);
}

// The shortest digits that read back as the same number.
template <auto kMember>
void printReal(std::string& out, const pelmoFieldData& data) {
    const auto number = data.*kMember;
    if (std::isfinite(number)) return printNumber<kMember>(out, data);
    out += std::isnan(number) ? "\"NaN\"" : number > 0 ? "\"Infinity\"" : "\"-Infinity\"";
}

void printTruth(std::string& out, const pelmoFieldData& data) {
    out += data.boolean == 1 ? "true" : "false";  // as the library's own text has it
}

void printPort(std::string& out, const pelmoFieldData& data) {
    out += std::to_string(ntohs(data.ipPort16));
}

void printAddress(std::string& out, const pelmoFieldData& data) {
    char text[INET_ADDRSTRLEN];
    const in_addr address{data.ipAddr32};
    out += '"';
    out += inet_ntop(AF_INET, &address, text, sizeof text);
    out += '"';
}

using D = pelmoFieldData;
using enum FieldForm;

// A type's name, and the members of JSON that its fields begin with.
#define MEMBERS(name) \
    name, ",\"type\":\"" name "\",\"value\":", ",\"type\":\"" name "[]\",\"value\":"

constexpr FieldKind kFieldKinds[] = {
    {MEMBERS("i8"), FIELD_I8, 1, kNumber, FIELD_I8ARRAY, parseNumber<&D::i8>, printNumber<&D::i8>},
    {MEMBERS("u8"), FIELD_U8, 1, kNumber, FIELD_U8ARRAY, parseNumber<&D::u8>, printNumber<&D::u8>},
    {MEMBERS("i16"), FIELD_I16, 2, kNumber, FIELD_I16ARRAY, parseNumber<&D::i16>,
     printNumber<&D::i16>},
    {MEMBERS("u16"), FIELD_U16, 2, kNumber, FIELD_U16ARRAY, parseNumber<&D::u16>,
     printNumber<&D::u16>},
    {MEMBERS("i32"), FIELD_I32, 4, kNumber, FIELD_I32ARRAY, parseNumber<&D::i32>,
     printNumber<&D::i32>},
    {MEMBERS("u32"), FIELD_U32, 4, kNumber, FIELD_U32ARRAY, parseNumber<&D::u32>,
     printNumber<&D::u32>},
    {MEMBERS("i64"), FIELD_I64, 8, kNumber, FIELD_I64ARRAY, parseNumber<&D::i64>,
     printNumber<&D::i64>},
    {MEMBERS("u64"), FIELD_U64, 8, kNumber, FIELD_U64ARRAY, parseNumber<&D::u64>,
     printNumber<&D::u64>},
    {MEMBERS("f32"), FIELD_F32, 4, kReal, FIELD_F32ARRAY, parseNumber<&D::f32>, printReal<&D::f32>},
    {MEMBERS("f64"), FIELD_F64, 8, kReal, FIELD_F64ARRAY, parseNumber<&D::f64>, printReal<&D::f64>},
    {MEMBERS("bool"), FIELD_BOOL, 1, kTruth, 0, parseTruth, printTruth},
    {MEMBERS("string"), FIELD_STRING, 0, kText, FIELD_STRINGARRAY, parseText, nullptr},
    {MEMBERS("datetime"), FIELD_DATETIME, kDateTimeBytes, kText, 0, parseDate, nullptr},
    {MEMBERS("ip"), FIELD_IPADDR32, 4, kText, 0, parseAddress, printAddress},
    {MEMBERS("port"), FIELD_IPPORT16, 2, kNumber, 0, parsePort, printPort},
    {MEMBERS("subject"), FIELD_SUBJECT, 0, kText, 0, parseSubject, nullptr},
    {MEMBERS("opaque"), FIELD_OPAQUE, 0, kText, 0, parseHex, nullptr},
    {MEMBERS("xml"), FIELD_XML, 0, kText, 0, parseText, nullptr},
    {MEMBERS("msg"), FIELD_MSG, 0, kMessage, FIELD_MSGARRAY, nullptr, nullptr},
    {MEMBERS("none"), FIELD_NONE, 0, kNothing, 0, nullptr, nullptr},
};

#undef MEMBERS

// By the codes of types and of arrays; null for the others.
constexpr auto kByCode = [] {
    std::array<const FieldKind*, 256> byCode{};
    for (const FieldKind& type : kFieldKinds) {
        byCode[type.code] = &type;
        if (type.arrayCode != 0) byCode[type.arrayCode] = &type;
    }
    return byCode;
}();

}  // namespace

const FieldKind* fieldKindByName(std::string_view name) {
    const auto* found = std::ranges::find(kFieldKinds, name, &FieldKind::name);
    return found != std::end(kFieldKinds) ? found : nullptr;
}

const FieldKind* fieldKindByCode(uint8_t code) {
    return kByCode[code];
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

namespace {

constexpr const char* kNoDate = "not a date-time such as 2024-01-02 03:04:05Z";
constexpr size_t kMostYearDigits = 6;
constexpr size_t kFractionDigits = 9;

// Digits of the text one after the other; `ok` is false from the first thing that isn't as asked.
struct Scan {
    std::string_view rest;
    bool ok = true;
};

bool take(Scan& scan, char wanted) {
    if (scan.rest.empty() || scan.rest.front() != wanted) return false;
    scan.rest.remove_prefix(1);
    return true;
}

void expect(Scan& scan, char wanted) {
    scan.ok = take(scan, wanted) && scan.ok;
}

// So many digits as there are, and the number is asked to be within the bounds.
int64_t takeNumber(Scan& scan, size_t leastDigits, size_t mostDigits, int64_t least, int64_t most) {
    int64_t number = 0;
    size_t digits = 0;
    while (digits < mostDigits && digits < scan.rest.size() && scan.rest[digits] >= '0' &&
           scan.rest[digits] <= '9') {
        number = number * 10 + (scan.rest[digits++] - '0');
    }
    scan.rest.remove_prefix(digits);
    if (digits < leastDigits || number < least || number > most) scan.ok = false;
    return number;
}

bool isLeap(int64_t year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Days of so many years from year 1 on. Before year 1 they repeat in mirror image.
int64_t daysOfYears(int64_t years) {
    return years * 365 + years / 4 - years / 100 + years / 400;
}

// Days from the first of January of year 1.
int64_t daysAhead(int64_t year) {
    return year > 0 ? daysOfYears(year - 1) : -daysOfYears(-year);
}

constexpr int kMonthStarts[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

int64_t takeDay(Scan& scan) {
    const bool isAhead = take(scan, '-');
    const int64_t yearNumber = takeNumber(scan, isAhead ? 3 : 4, kMostYearDigits, 1, INT64_MAX);
    const int64_t year = isAhead ? -yearNumber : yearNumber;
    expect(scan, '-');
    const int64_t month = takeNumber(scan, 2, 2, 1, 12);
    expect(scan, '-');
    if (!scan.ok) return 0;
    const int* starts = &kMonthStarts[isLeap(year) ? 1 : 0][month - 1];
    const int64_t day = takeNumber(scan, 2, 2, 1, starts[1] - starts[0]);
    return daysAhead(year) - daysAhead(1970) + starts[0] + day - 1;
}

int64_t takeTime(Scan& scan) {
    const int64_t hour = takeNumber(scan, 2, 2, 0, 23);
    expect(scan, ':');
    const int64_t minute = takeNumber(scan, 2, 2, 0, 59);
    expect(scan, ':');
    const int64_t second = takeNumber(scan, 2, 2, 0, 59);
    return (hour * 60 + minute) * 60 + second;
}

uint32_t takeFraction(Scan& scan) {
    if (!take(scan, '.')) return 0;
    const size_t before = scan.rest.size();
    int64_t fraction = takeNumber(scan, 1, kFractionDigits, 0, INT64_MAX);
    for (size_t digits = before - scan.rest.size(); digits < kFractionDigits; ++digits) {
        fraction *= 10;
    }
    return static_cast<uint32_t>(fraction);
}

}  // namespace

const char* dateTextParse(std::string_view text, pelmoMsgDateTime& out) {
    Scan scan{text};
    const int64_t days = takeDay(scan);
    scan.ok = (take(scan, ' ') || take(scan, 'T')) && scan.ok;
    const int64_t seconds = takeTime(scan);
    const uint32_t nanoseconds = takeFraction(scan);
    expect(scan, 'Z');
    if (!scan.ok || !scan.rest.empty()) return kNoDate;
    out = {days * 86400 + seconds, nanoseconds};
    return nullptr;
}

std::string textFieldParse(const char* word, TextField& out) {
    const std::string_view all(word);
    const size_t equals = all.find('=');
    if (equals == std::string_view::npos) return "neither NAME=TEXT nor NAME:TYPE=VALUE";
    const std::string_view head = all.substr(0, equals);
    const size_t colon = head.rfind(':');
    const bool isTyped = colon != std::string_view::npos;
    const std::string_view name = head.substr(0, colon);
    const std::string_view typeName = isTyped ? head.substr(colon + 1) : "string";
    if (name.empty()) return "a field needs a name";
    if (name.size() > kMaxNameChars) return "its name is too long";

    out.type = fieldKindByName(typeName);
    if (out.type == nullptr || out.type->parse == nullptr) {
        return "no type \"" + std::string(typeName) + "\"; there are " + fieldKindNames();
    }
    const char* fault = out.type->parse(all.substr(equals + 1), out.value);
    if (fault != nullptr) return fault;
    out.word = word;
    out.name = name;
    return {};
}

pelmoStatus textFieldsAdd(pelmoMsg* msg,
                          const std::vector<TextField>& fields,
                          const TextField** outFault) {
    for (const TextField& field : fields) {
        const pelmoStatus status = fieldAdd(msg, *field.type, field.name.c_str(), 0, field.value);
        if (status == kStatusSuccess) continue;
        *outFault = &field;
        return status;
    }
    return kStatusSuccess;
}
