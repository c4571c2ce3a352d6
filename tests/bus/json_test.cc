// Messages to JSON and back: whatever the library can build comes back to the byte, and whatever
// isn't such a line is refused with its place.

#include "programs/json.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "bus/common.h"
#include "programs/message_json.h"
#include "programs/text.h"

namespace {

std::string imageOf(pelmoMsg* msg) {
    const void* bytes = nullptr;
    uint32_t sizeBytes = 0;
    EXPECT_EQ(pelmoMsg_GetAsBytes(msg, &bytes), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_GetByteSize(msg, &sizeBytes), kStatusSuccess);
    return {static_cast<const char*>(bytes), sizeBytes};
}

std::string lineOf(pelmoMsg* msg) {
    std::string line;
    EXPECT_EQ(jsonWriteMessage(msg, {}, line), kStatusSuccess);
    return line;
}

// The line's message, checked to be written as the same line again.
OwnedMessage read(const std::string& line) {
    JsonReader reader;
    OwnedMessage msg = messageMake();
    EXPECT_TRUE(jsonReadMessage(reader, line, msg.get())) << reader.fault << "\n" << line;
    EXPECT_EQ(lineOf(msg.get()), line);
    return msg;
}

// A message from fields' records as they are on the wire.
OwnedMessage fromRecords(std::string_view records) {
    std::string image("\0\0\0\0\x99\x55\xEE\xAA", 8);
    image += records;
    const uint32_t size = htonl(static_cast<uint32_t>(image.size()));
    std::memcpy(image.data(), &size, sizeof size);
    pelmoMsg* msg = nullptr;
    EXPECT_EQ(pelmoMsg_CreateFromBytes(&msg, image.data()), kStatusSuccess);
    return OwnedMessage(msg);
}

}  // namespace

TEST(BusJson, EveryTypeIsReadAndWritten) {
    const char* const inner =
        R"({"fields":[{"name":"b","id":3,"type":"bool","value":true},{"type":"i8","value":1}]})";
    const std::string twice = "[" + std::string(inner) + "," + inner + "]";
    // The type and the value as a line has them, and what the library shows.
    const char* const cases[][3] = {
        {"i8", "-128", "-128"},
        {"u8", "255", "255"},
        {"i16", "-32768", "-32768"},
        {"u16", "65535", "65535"},
        {"i32", "-2147483648", "-2147483648"},
        {"u32", "4294967295", "4294967295"},
        {"i64", "-9223372036854775808", "-9223372036854775808"},
        {"u64", "18446744073709551615", "18446744073709551615"},
        {"f32", "0.1", "0.1"},
        {"f64", R"("Infinity")", "inf"},
        {"datetime", R"("1969-12-31 23:59:59.999999000Z")", "1969-12-31 23:59:59.999999000Z"},
        {"datetime", R"("-001-12-31 23:59:59Z")", "-001-12-31 23:59:59Z"},
        {"ip", R"("192.168.1.2")", "192.168.1.2"},
        {"port", "7500", "7500"},
        {"subject", R"("A.*.>")", "[A.*.>]"},
        {"opaque", R"("00ff0a")", "[3 opaque bytes]"},
        {"opaque", R"("")", "[0 opaque bytes]"},
        {"xml", R"("<a>\u0000</a>")", "[XML document: 8 bytes]"},
        {"none", "null", "[NONE]"},
        {"i8[]", "[-128,127]", "[-128 127]"},
        {"u8[]", "[0,255]", "[0 255]"},
        {"i16[]", "[-32768]", "[-32768]"},
        {"u16[]", "[65535]", "[65535]"},
        {"i32[]", "[-2147483648,0,2147483647]", "[-2147483648 0 2147483647]"},
        {"u32[]", "[4294967295]", "[4294967295]"},
        {"i64[]", "[-9223372036854775808]", "[-9223372036854775808]"},
        {"u64[]", "[18446744073709551615,9007199254740993]",
         "[18446744073709551615 9007199254740993]"},
        {"f32[]", R"([0.1,-0,1e-45,"NaN"])", "[0.100000 -0.000000 0.000000 nan]"},
        {"f64[]", R"([0.1,1e+300,"-Infinity",5e-324])", "[0.1 1e+300 -inf 4.94066e-324]"},
        {"string[]", R"(["","a\udc80z","\udced\udcb2\udc80"])",
         "[\"\" \"a\x80z\" \"\xed\xb2\x80\"]"},
        {"msg", inner, "{b[3]=true NULL=1}"},
        {"msg[]", twice.c_str(), "[{b[3]=true NULL=1} {b[3]=true NULL=1}]"},
        {"200", R"("6f776e")", "[3 opaque bytes]"},
    };
    jsonAcceptOwnTypes();
    for (const auto& [type, value, shown] : cases) {
        const OwnedMessage msg = read(std::string(R"({"fields":[{"name":"n","type":")") + type +
                                      R"(","value":)" + value + "}]}");
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_ConvertToString(msg.get(), &text), kStatusSuccess);
        EXPECT_EQ(text, "{n=" + std::string(shown) + "}");
    }
}

// Any bytes as a text: the line is valid UTF-8 without control characters, and gives them back.
TEST(BusJson, AnyBytesAreAText) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string bytes;
        for (auto i = random() % 12; i > 0; --i) {
            // Bytes of which characters are made, rather than any.
            static constexpr char kOften[] = "a\"\\\xE2\x80\xA8\xA9\xED\xB2\xF0\x9F\x98\xC2\x85";
            const bool isOften = random() % 4 != 0;
            bytes += isOften ? kOften[random() % sizeof kOften] : static_cast<char>(random());
        }
        std::string text;
        jsonTextAdd(text, bytes);
        for (size_t at = 0; at < text.size();) {
            const size_t length = utf8Length(std::string_view(text).substr(at));
            ASSERT_NE(length, 0u) << text;
            ASSERT_GE(static_cast<uint8_t>(text[at]), 0x20) << text;
            at += length;
        }
        EXPECT_EQ(text.find("\xE2\x80\xA8"), std::string::npos);
        std::string back;
        size_t stop = 0;
        const std::string_view inner = std::string_view(text).substr(1, text.size() - 2);
        ASSERT_EQ(jsonTextRead(inner, &back, &stop), nullptr) << text;
        EXPECT_EQ(back, bytes);
    }
}

TEST(BusJson, WhatDoesNotDecodeIsItsBytes) {
    const std::pair<std::string, const char*> cases[] = {
        {{"\2a\0\x32\2\1\2", 7}, R"({"name":"a","type":"50","value":"0102"})"},  // no such type
        {{"\4a\0\0\7\3\1\xff", 8},
         R"({"name":"a","id":7,"type":"3","value":"ff"})"},            // a short date
        {{"\0\x32\x79\0\3\xab", 6}, R"({"type":"50","value":"ab"})"},  // a longer prefix
        {{"\0\1\x7a\0\0\0\x9\x99\x55\xEE\xAA\5", 12}, R"({"type":"1","value":"9955eeaa05"})"},
    };
    for (const auto& [record, field] : cases) {
        const OwnedMessage msg = fromRecords(record);
        EXPECT_EQ(lineOf(msg.get()), std::string(R"({"fields":[)") + field + "]}");
    }
}

// Unknown fields take as long wherever they are: quadratic time would be an hour here.
TEST(BusJson, WritesManyFieldsThatDoNotDecode) {
    constexpr size_t kRecords = 500000;
    std::string records;
    for (size_t i = 0; i < kRecords; ++i)
        records.append("\0\x32\0", 3);
    const std::string line = lineOf(fromRecords(records).get());
    EXPECT_EQ(line.size(), std::strlen(R"({"fields":[]})") - 1 +
                               kRecords * std::strlen(R"({"type":"50","value":""},)"));
}

// Nested beyond the bound: the bytes, which are a message again.
TEST(BusJson, NestedMessagesAreFollowedToADepth) {
    OwnedMessage msg = messageMake();
    for (uint32_t depth = 0; depth < kMostNestedMessages + 3; ++depth) {
        OwnedMessage outer = messageMake();
        pelmoMsg* element = msg.get();
        ASSERT_EQ(pelmoMsg_AddMsgArray(outer.get(), "m", &element, 1, 0), kStatusSuccess);
        msg = std::move(outer);
    }
    EXPECT_EQ(imageOf(read(lineOf(msg.get())).get()), imageOf(msg.get()));
    EXPECT_NE(lineOf(msg.get()).find("9955eeaa"), std::string::npos);
}

TEST(BusJson, TakesWhatOthersWrite) {
    JsonReader reader;
    const OwnedMessage msg = messageMake();
    ASSERT_TRUE(jsonReadMessage(reader, R"({"subject":"A","reply":"B","fields":[]})", msg.get()));
    ASSERT_TRUE(
        jsonReadMessage(reader,
                        " { \"fields\" : [ { \"value\" : -0 , \"\\u0074ype\":\"i8\","
                        "\"name\":null},{\"type\":\"none\"},{\"type\":\"f64\",\"value\":1E2}"
                        ",{\"type\":\"string\",\"value\":\"\\uD83D\\ude00\\u00e9\"} ] }\r",
                        msg.get()))
        << reader.fault;
    EXPECT_EQ(reader.subject + reader.reply, "");
    const char* text = nullptr;
    ASSERT_EQ(pelmoMsg_ConvertToString(msg.get(), &text), kStatusSuccess);
    EXPECT_STREQ(text, "{NULL=0 NULL=[NONE] NULL=100 NULL=\"\xF0\x9F\x98\x80\xC3\xA9\"}");
}

TEST(BusJson, RefusesWithThePlace) {
    jsonAcceptOwnTypes();
    const auto field = [](const std::string& inner) { return R"({"fields":[{)" + inner + "}]}"; };
    const std::pair<std::string, const char*> cases[] = {
        {"", "column 1: a value is missing"},
        {R"({"fields":[]} x)", "column 15: something follows the value"},
        {R"({"fields":01})", "column 12: ',' or '}' is missing"},
        {R"({"fields)", "column 9: the closing quote is missing"},
        {"{\"a\tb\":1}", "column 4: a raw control character"},
        {R"({"a\x":1})", "column 4: no such escape"},
        {R"({"\ud800":1})", "column 3: half a surrogate pair"},
        {R"({"\udc7f":1})", "column 3: half a surrogate pair"},  // no byte beyond ASCII
        {R"({"\u12g4":1})", "column 3: \\u needs four hexadecimal digits"},
        {"{\"\xc0\x80\":1}", "column 3: not UTF-8"},
        {std::string(kMostJsonDepth + 1, '['), "column 517: nested too deep"},
        {"[]", "column 1: not an object"},
        {"{}", R"(column 1: "fields" is missing)"},
        {R"({"field":[]})", "column 3: no such key here"},
        {R"({"fields":[],"fields":[]})", "column 15: the key was there already"},
        {R"({"subject":1,"fields":[]})", "column 12: not a string"},
        {R"({"subject":"a\u0000","fields":[]})", "column 13: a NUL can't be here"},
        {field(""), R"(column 12: "type" is missing)"},
        {field(R"("type":"i32")"), R"(column 12: "value" is missing)"},
        {field(R"("type":"i33","value":1)"), "column 12: no type that can be sent: i33"},
        {field(R"("type":"200","value":"")"), "column 12: Invalid size (32)"},
        {field(R"("type":"u64","value":-1)"), "column 34: not a whole number from 0 up"},
        {field(R"("type":"i32","value":1.0)"), "column 34: not a whole number"},
        {field(R"("type":"i32","value":"1")"), "column 35: not the value of a i32"},
        {field(R"("type":"f64","value":"1")"), "column 35: a number in quotes"},
        {field(R"("type":"f32","value":1e39)"), "column 34: out of range"},
        {field(R"("type":"opaque","value":"abc")"), "column 38: not pairs of hexadecimal digits"},
        {field(R"("type":"i8[]","value":[])"),
         "column 35: an array without elements can't be sent"},
        {field(R"("type":"u8[]","value":[1,256])"), "column 38: out of range"},
        {field(R"("type":"string[]","value":["\u0000"])"), "column 41: a NUL can't be here"},
        {field(R"("type":"msg","value":"00")"), "column 35: not the bytes of one message"},
        {field(R"("type":"msg","value":"000000ff9955eeaa")"),
         "column 35: not the bytes of one message"},
        {field(R"("type":"msg","value":"0000000800000000")"), "column 35: Invalid message (42)"},
        {field(R"("id":1,"type":"i8","value":1)"), "column 12: Not permitted (27)"},
        {field(R"("name":"a","id":65536,"type":"i8","value":1)"), "column 29: out of range"},
    };
    for (const auto& [line, fault] : cases) {
        JsonReader reader;
        const OwnedMessage msg = messageMake();
        EXPECT_FALSE(jsonReadMessage(reader, line, msg.get())) << line;
        EXPECT_EQ(reader.fault, fault) << line;
    }
}
