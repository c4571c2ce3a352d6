// What each type becomes when a read asks for another one. Expected values are written as text, one
// word for each target: "-" where there is no way.

#include "lib/msg/convert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>

#include "tests/support/message_values.h"

namespace {

// Of a scalar, or of an element of an array; 0 for other types.
uint32_t bytesOf(uint8_t type) {
    switch (type) {
#define PELMO_BYTES(word, type, Value, ...) \
    case type:                              \
        return sizeof(Value);
        PELMO_SCALAR_FIELDS(PELMO_BYTES)
        PELMO_NUMBER_ARRAY_FIELDS(PELMO_BYTES)
#undef PELMO_BYTES
        default:
            return 0;
    }
}

bool isArray(uint8_t type) {
    return type >= FIELD_I8ARRAY;
}

// The text of the field as it is, where the type is one word; floats to their last digit.
std::string shownAs(const pelmoMsgField& source, uint8_t target) {
    pelmoMsgField field = source;
    pelmoDisposition disposition = kDataByValue;
    const pelmoStatus status = fieldConverters[source.type](&field, target, &disposition);
    if (status != kStatusSuccess) {
        EXPECT_EQ(status, kStatusConversionFailed);
        return "-";
    }
    const bool owned = disposition == kDataOwnedBlock;
    const OwnedBlock block(owned ? const_cast<void*>(field.data.pointer) : nullptr);
    EXPECT_EQ(field.type, target);
    if (target == FIELD_STRING) {
        const auto* text = static_cast<const char*>(field.data.pointer);
        EXPECT_EQ(field.size, std::strlen(text) + 1);
        EXPECT_EQ(field.count, 1u);
        return text;
    }
    EXPECT_EQ(field.size, bytesOf(target));
    EXPECT_EQ(field.count, source.count);
    char digits[40];
    if (target == FIELD_F32 || target == FIELD_F64) {
        const double real = target == FIELD_F32 ? double{field.data.f32} : field.data.f64;
        std::snprintf(digits, sizeof digits, "%.17g", real);
        return digits;
    }
    const bool same = isArray(target) && field.data.pointer == source.data.pointer;
    EXPECT_EQ(owned, isArray(target) && !same);
    std::string text = (same ? "=" : "") + shownAs(field, FIELD_STRING);
    std::ranges::replace(text, ' ', ',');
    return text;
}

// All 256 targets. The words are for those that aren't the type itself: of a number array the
// others; else bool, signed and unsigned of 8, 16, 32 and 64 bits, floats of 32 and 64, port and
// address. What has no word has no way.
void expectAll(const pelmoMsgField& source, const std::string& words, const std::string& text) {
    std::istringstream in(words);
    for (unsigned number = 0; number < 256; ++number) {
        const auto target = static_cast<uint8_t>(number);
        if (target == source.type) continue;
        std::string expected = target == FIELD_STRING ? text : "-";
        if (bytesOf(target) != 0 && isArray(target) == isArray(source.type)) in >> expected;
        EXPECT_EQ(shownAs(source, target), expected) << "from " << +source.type << " to " << number;
    }
}

SharedValue f64(double number) {
    return scalarValue(FIELD_F64, &pelmoFieldData::f64, number);
}

SharedValue truth(uint32_t number) {
    return scalarValue(FIELD_BOOL, &pelmoFieldData::boolean, number);
}

TEST(Convert, CutsWrapsAndWidensNumbersAndShowsTheRestAsText) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const Bytes inner = imageOf({recordOf("a", 0, *truth(1))});
    const struct {
        SharedValue source;
        const char* words;
        std::string text;
    } cases[] = {
        {scalarValue(FIELD_I8, &pelmoFieldData::i8, int8_t{-128}),
         "true 128 -128 65408 -128 4294967168 -128 18446744073709551488 -128 -128", "-128"},
        {scalarValue(FIELD_I32, &pelmoFieldData::i32, 16777217),
         "true 1 1 1 1 16777217 16777217 16777217 16777216 16777217", "16777217"},
        {scalarValue(FIELD_U32, &pelmoFieldData::u32, UINT32_MAX),
         "true -1 255 -1 65535 -1 4294967295 4294967295 4294967296 4294967295", "4294967295"},
        {scalarValue(FIELD_I64, &pelmoFieldData::i64, INT64_MIN),
         "true 0 0 0 0 0 0 9223372036854775808 -9.2233720368547758e+18 -9.2233720368547758e+18",
         "-9223372036854775808"},
        {scalarValue(FIELD_U64, &pelmoFieldData::u64, UINT64_MAX),
         "true -1 255 -1 65535 -1 4294967295 -1 -1 -1", "18446744073709551615"},
        {scalarValue(FIELD_F32, &pelmoFieldData::f32, -3.9f),
         "true -3 253 -3 65533 -3 4294967293 -3 18446744073709551613 -3.9000000953674316", "-3.9"},
        {f64(-2147483648.9),
         "true 0 0 0 0 -2147483648 2147483648 -2147483648 18446744071562067968 -2147483648",
         "-2.14748e+09"},
        // Beyond what an integer holds.
        {f64(1e19),
         "true 0 0 0 0 -2147483648 0 -9223372036854775808 9223372036854775808 "
         "9.9999999805064479e+18",
         "1e+19"},
        {f64(-kInfinity),
         "true 0 0 0 0 -2147483648 0 -9223372036854775808 9223372036854775808 -inf", "-inf"},
        {f64(std::numeric_limits<double>::quiet_NaN()),
         "true 0 0 0 0 -2147483648 0 -9223372036854775808 9223372036854775808 nan", "nan"},
        {truth(2), "0 0 0 0 0 0 0 0 0 0", "false"},
        {numbersValue<int8_t>(34, {-1, 127}),
         "=[255,127] [-1,127] [65535,127] [-1,127] [4294967295,127] - - [-1.000000,127.000000] "
         "[-1,127]",
         "[-1 127]"},
        {numbersValue<int16_t>(36, {-32768}),
         "[0] [0] =[32768] [-32768] [4294934528] - - [-32768.000000] [-32768]", "[-32768]"},
        {numbersValue<int32_t>(38, {-1, 16777217}),
         "[-1,1] [255,1] [-1,1] [65535,1] [4294967295,16777217] [-1,16777217] "
         "[18446744073709551615,16777217] [-1.000000,16777216.000000] [-1,1.67772e+07]",
         "[-1 16777217]"},
        {numbersValue<uint64_t>(41, {UINT64_MAX}),
         "[-1] [255] [-1] [65535] [-1] [4294967295] [-1] [-1.000000] [-1]",
         "[18446744073709551615]"},
        {numbersValue<double>(45, {3.9, 1e10}),
         "[3,0] [3,0] [3,0] [3,0] [3,-2147483648] [3,1410065408] [3,10000000000] [3,10000000000] "
         "[3.900000,10000000000.000000]",
         "[3.9 1e+10]"},
        {scalarValue(FIELD_IPPORT16, &pelmoFieldData::ipPort16, hostOrder16(57072)),
         "- - - - 57072 57072 57072", "57072"},
        {scalarValue(FIELD_IPADDR32, &pelmoFieldData::ipAddr32, hostOrder32(0xc0a80101)),
         "- - - - - - 3232235777", "192.168.1.1"},
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

TEST(Convert, ParsesText) {
    const struct {
        std::string text;
        const char* words;
    } cases[] = {
        {"", "false - - - - - - - - - - - -"},
        {"True", "true - - - - - - - - - - - -"},
        {"1", "false 1 1 1 1 1 1 1 1 1 1 1 0.0.0.1"},
        {"7 ", "false 7 7 7 7 7 7 7 7 - - 7 -"},
        {"-1.5", "false -1 255 -1 65535 -1 4294967295 -1 18446744073709551615 -1.5 -1.5 65535 -"},
        {"9223372036854775808",
         "false -1 0 -1 0 -1 0 9223372036854775807 9223372036854775808 "
         "9.2233720368547758e+18 9.2233720368547758e+18 0 255.255.255.255"},
        {"1e400", "false 1 1 1 1 1 1 1 1 inf inf 1 0.1.228.0"},
        {"c0a80101", "false - - - - - - - - - - - 192.168.1.1"},
        {"192.168.1.1", "false -64 192 192 192 192 192 192 192 - - 192 192.168.1.1"},
        {"192.168.1.", "false -64 192 192 192 192 192 192 192 - - 192 -"},
        {"1.2.4.300", "false 1 1 1 1 1 1 1 1 - - 1 1.2.5.44"},
        {std::string("12\0x", 4), "false 12 12 12 12 12 12 12 12 12 12 12 0.0.0.18"},
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
