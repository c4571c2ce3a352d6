// What each type becomes when a read asks for another one. Expected values are written as text, one
// word for each target: "-" where there is no way, "." for the type itself.

#include "lib/msg/convert.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>

#include "lib/base/bytes.h"
#include "tests/support/message_values.h"

namespace {

// Of a number, a truth value, a port or an address.
std::string shown(uint8_t type, const void* at) {
    const auto* octets = static_cast<const uint8_t*>(at);
    if (type == FIELD_IPPORT16) return std::to_string(loadBe16At(octets));
    char text[64];
    if (type == FIELD_IPADDR32)
        return std::string(text, ipAddrToText(loadBe32At(octets), text, 64) - 1);
    const Number number = loadNumber(type == FIELD_BOOL ? uint8_t{FIELD_U32} : type, at);
    if (type == FIELD_U64) return std::to_string(static_cast<uint64_t>(number.integer));
    if (!number.isFloat) return std::to_string(number.integer);
    std::snprintf(text, sizeof text, "%.17g", number.real);
    return std::isnan(number.real) ? "nan" : text;
}

uint32_t widthOf(uint8_t type) {
    if (isNumberType(type)) return numberBytes(type);
    return type == FIELD_IPPORT16 ? 2 : 4;
}

constexpr uint8_t kElements[] = {FIELD_I8,  FIELD_U8,  FIELD_I16, FIELD_U16, FIELD_I32, FIELD_U32,
                                 FIELD_I64, FIELD_U64, 0,         0,         FIELD_F32, FIELD_F64};

uint8_t elementOf(uint8_t type) {
    return type >= FIELD_I8ARRAY && type <= FIELD_F64ARRAY ? kElements[type - FIELD_I8ARRAY] : 0;
}

// The value, or for an array its elements, after "=" if it is still the same block. Size, count and
// disposition are checked on the way.
std::string shownAs(const pelmoMsgField& source, uint8_t targetType) {
    pelmoMsgField field = source;
    pelmoDisposition disposition = kDataByValue;
    const pelmoStatus status = fieldConverters[source.type](&field, targetType, &disposition);
    if (status != kStatusSuccess) {
        EXPECT_EQ(status, kStatusConversionFailed);
        return "-";
    }
    const bool owned = disposition == kDataOwnedBlock;
    const OwnedBlock block(owned ? const_cast<void*>(field.data.pointer) : nullptr);
    EXPECT_EQ(field.type, targetType);
    if (targetType == FIELD_STRING) {
        const auto* text = static_cast<const char*>(field.data.pointer);
        EXPECT_EQ(field.size, std::strlen(text) + 1);
        EXPECT_EQ(field.count, 1u);
        return text;
    }
    const uint8_t element = elementOf(targetType);
    EXPECT_EQ(field.size, widthOf(element == FIELD_BAD ? targetType : element));
    EXPECT_EQ(field.count, source.count);
    if (element == FIELD_BAD) {
        EXPECT_EQ(disposition, kDataByValue);
        return shown(targetType, &field.data);
    }
    const bool same = field.data.pointer == source.data.pointer;
    EXPECT_EQ(disposition, same ? kDataByValue : kDataOwnedBlock);
    std::string all = same ? "=" : "";
    for (uint32_t i = 0; i < field.count; ++i) {
        const auto* at = static_cast<const uint8_t*>(field.data.pointer) + i * field.size;
        all += (i != 0 ? "," : "") + shown(element, at);
    }
    return all;
}

const std::vector<uint8_t> kScalars = {FIELD_BOOL, FIELD_I8,  FIELD_U8,  FIELD_I16,
                                       FIELD_U16,  FIELD_I32, FIELD_U32, FIELD_I64,
                                       FIELD_U64,  FIELD_F32, FIELD_F64};

// What is more than text, in the order of the words below.
std::vector<uint8_t> targetsOf(uint8_t type) {
    if (type == FIELD_BOOL || isNumberType(type)) return kScalars;
    if (type == FIELD_IPPORT16) return {FIELD_U16, FIELD_I32, FIELD_U32};
    if (type == FIELD_IPADDR32) return {FIELD_U32};
    if (elementOf(type) != FIELD_BAD) return {34, 35, 36, 37, 38, 39, 40, 41, 44, 45};
    if (type != FIELD_STRING) return {};
    std::vector<uint8_t> targets = kScalars;
    targets.insert(targets.end(), {FIELD_IPPORT16, FIELD_IPADDR32});
    return targets;
}

// All 256 targets: those above have a word each, text has its own, all others have no way.
void expectAll(const pelmoMsgField& source, const std::string& words, const std::string& text) {
    std::array<std::string, 256> expected;
    expected.fill("-");
    std::istringstream in(words);
    for (const uint8_t target : targetsOf(source.type)) {
        ASSERT_TRUE(in >> expected[target]) << words;
    }
    expected[FIELD_STRING] = text;
    for (unsigned target = 0; target < 256; ++target) {
        if (target == source.type) continue;
        EXPECT_EQ(shownAs(source, static_cast<uint8_t>(target)), expected[target])
            << "from " << int{source.type} << " to " << target;
    }
}

SharedValue f64(double number) {
    return scalarValue(FIELD_F64, &pelmoFieldData::f64, number);
}

SharedValue truth(uint32_t number) {
    return scalarValue(FIELD_BOOL, &pelmoFieldData::boolean, number);
}

// Bool, then signed and unsigned of 8, 16, 32 and 64 bits, then floats of 32 and 64.
TEST(Convert, CutsWrapsAndWidensNumbersAndShowsTheRestAsText) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const Bytes inner = imageOf({recordOf("a", 0, *truth(1))});
    const struct {
        SharedValue source;
        const char* words;
        std::string text;
    } cases[] = {
        {scalarValue(FIELD_I8, &pelmoFieldData::i8, int8_t{-128}),
         "1 . 128 -128 65408 -128 4294967168 -128 18446744073709551488 -128 -128", "-128"},
        {scalarValue(FIELD_I32, &pelmoFieldData::i32, 16777217),
         "1 1 1 1 1 . 16777217 16777217 16777217 16777216 16777217", "16777217"},
        {scalarValue(FIELD_U32, &pelmoFieldData::u32, UINT32_MAX),
         "1 -1 255 -1 65535 -1 . 4294967295 4294967295 4294967296 4294967295", "4294967295"},
        {scalarValue(FIELD_I64, &pelmoFieldData::i64, INT64_MIN),
         "1 0 0 0 0 0 0 . 9223372036854775808 -9.2233720368547758e+18 -9.2233720368547758e+18",
         "-9223372036854775808"},
        {scalarValue(FIELD_U64, &pelmoFieldData::u64, UINT64_MAX),
         "1 -1 255 -1 65535 -1 4294967295 -1 . -1 -1", "18446744073709551615"},
        {scalarValue(FIELD_F32, &pelmoFieldData::f32, -3.9f),
         "1 -3 253 -3 65533 -3 4294967293 -3 18446744073709551613 . -3.9000000953674316", "-3.9"},
        {f64(-2147483648.9),
         "1 0 0 0 0 -2147483648 2147483648 -2147483648 18446744071562067968 -2147483648 .",
         "-2.14748e+09"},
        // Beyond what an integer holds.
        {f64(1e19),
         "1 0 0 0 0 -2147483648 0 -9223372036854775808 9223372036854775808 "
         "9.9999999805064479e+18 .",
         "1e+19"},
        {f64(-kInfinity), "1 0 0 0 0 -2147483648 0 -9223372036854775808 9223372036854775808 -inf .",
         "-inf"},
        {f64(std::numeric_limits<double>::quiet_NaN()),
         "1 0 0 0 0 -2147483648 0 -9223372036854775808 9223372036854775808 nan .", "nan"},
        {truth(2), ". 0 0 0 0 0 0 0 0 0 0", "false"},
        {numbersValue<int8_t>(34, {-1, 127}),
         ". =255,127 -1,127 65535,127 -1,127 4294967295,127 - - -1,127 -1,127", "[-1 127]"},
        {numbersValue<int16_t>(36, {-32768}), "0 0 . =32768 -32768 4294934528 - - -32768 -32768",
         "[-32768]"},
        {numbersValue<int32_t>(38, {-1, 16777217}),
         "-1,1 255,1 -1,1 65535,1 . 4294967295,16777217 -1,16777217 "
         "18446744073709551615,16777217 -1,16777216 -1,16777217",
         "[-1 16777217]"},
        {numbersValue<uint64_t>(41, {UINT64_MAX}), "-1 255 -1 65535 -1 4294967295 -1 . -1 -1",
         "[18446744073709551615]"},
        {numbersValue<double>(45, {3.9, 1e10}),
         "3,0 3,0 3,0 3,0 3,-2147483648 3,1410065408 3,10000000000 3,10000000000 "
         "3.9000000953674316,10000000000 .",
         "[3.9 1e+10]"},
        {scalarValue(FIELD_IPPORT16, &pelmoFieldData::ipPort16, hostOrder16(57072)),
         "57072 57072 57072", "57072"},
        {scalarValue(FIELD_IPADDR32, &pelmoFieldData::ipAddr32, hostOrder32(0xc0a80101)),
         "3232235777", "192.168.1.1"},
        {noneValue(), "", "[NONE]"},
        {blockValue(FIELD_OPAQUE, Bytes(12)), "", "[12 opaque bytes]"},
        {blockValue(FIELD_XML, Bytes(7)), "", "[XML document: 7 bytes]"},
        {subjectValue("A.B.*.>"), "", "A.B.*.>"},
        {messageValue(inner), "", "{a=true}"},
        {messageArrayValue({inner, inner}), "", "[{a=true} {a=true}]"},
        {stringArrayValue({"a", "", "%s"}), "", "[\"a\" \"\" \"%s\"]"},
        {dateTimeValue(-2203891200, 999999999), "", "1900-03-01 00:00:00.999999999Z"},
        {dateTimeValue(-62135596801, 0), "", "-001-12-31 23:59:59Z"},
        {dateTimeValue(549755813887, 5000), "", "19391-01-25 12:18:07.000005000Z"},
    };
    for (const auto& [source, words, text] : cases) {
        expectAll(source->field(), words, text);
    }
    expectAll(pelmoMsgField{}, "", "[BADDATA]");

    // The longest texts, often enough to overrun a block that is too small.
    constexpr double kTwoTo64 = 18446744073709551616.0;
    const auto times = [](auto one) { return std::vector(500, one); };
    const std::pair<SharedValue, std::string> widest[] = {
        {numbersValue(36, times(int16_t{-32768})), " -32768"},
        {numbersValue(40, times(int64_t{INT64_MIN})), " -9223372036854775808"},
        {numbersValue(44, times(static_cast<float>(-kTwoTo64))), " -18446744073709551616.000000"},
        {numbersValue(45, times(-1.23456789e-300)), " -1.23457e-300"},
    };
    for (const auto& [source, element] : widest) {
        std::string text;
        for (int i = 0; i < 500; ++i)
            text += element;
        EXPECT_EQ(shownAs(source->field(), FIELD_STRING), "[" + text.substr(1) + "]");
    }
}

// Bool, the integers and floats, then port and address.
TEST(Convert, ParsesText) {
    const struct {
        std::string text;
        const char* words;
    } cases[] = {
        {"", "0 - - - - - - - - - - - -"},
        {"True", "1 - - - - - - - - - - - -"},
        {"1", "0 1 1 1 1 1 1 1 1 1 1 1 0.0.0.1"},
        {"7 ", "0 7 7 7 7 7 7 7 7 - - 7 -"},
        {"-1.5", "0 -1 255 -1 65535 -1 4294967295 -1 18446744073709551615 -1.5 -1.5 65535 -"},
        {"9223372036854775808",
         "0 -1 0 -1 0 -1 0 9223372036854775807 9223372036854775808 "
         "9.2233720368547758e+18 9.2233720368547758e+18 0 255.255.255.255"},
        {"1e400", "0 1 1 1 1 1 1 1 1 inf inf 1 0.1.228.0"},
        {"c0a80101", "0 - - - - - - - - - - - 192.168.1.1"},
        {"192.168.1.1", "0 -64 192 192 192 192 192 192 192 - - 192 192.168.1.1"},
        {"192.168.1.", "0 -64 192 192 192 192 192 192 192 - - 192 -"},
        {"1.2.4.300", "0 1 1 1 1 1 1 1 1 - - 1 1.2.5.44"},
        {std::string("12\0x", 4), "0 12 12 12 12 12 12 12 12 12 12 12 0.0.0.18"},
    };
    for (const auto& [text, words] : cases) {
        SCOPED_TRACE(text);
        expectAll(stringValue(text)->field(), words, "-");
        // The same without its NUL, in a block of its own size.
        if (text.empty()) continue;
        const Bytes bare(text.begin(), text.end());
        expectAll(blockValue(FIELD_STRING, bare)->field(), words, "-");
    }
    expectAll(blockValue(FIELD_STRING, {})->field(), "- - - - - - - - - - - - -", "-");
}

}  // namespace
