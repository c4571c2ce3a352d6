// Texts in JSON (RFC 8259), and bytes that aren't UTF-8 in them.
//
// What is valid UTF-8 (RFC 3629) is written unchanged, but for quotes, backslashes, control
// characters and the two characters that some take for line breaks, U+2028 and U+2029. A byte that
// isn't part of valid UTF-8 is written as the lone surrogate U+DC00 + byte, "\udc80" to "\udcff",
// which no valid text has: so any bytes come back as they were.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "programs/text.h"

// How many bytes at the beginning are written as they are: of nearly all texts all.
[[nodiscard]] size_t jsonPlainLength(std::string_view text);

// Of a text whose first `plain` bytes are written as they are.
void jsonTextAddEscaped(std::string& out, std::string_view text, size_t plain);

// With its quotes, between two pieces that are added as they are.
[[gnu::always_inline]] inline void jsonTextAdd(std::string& out,
                                               std::string_view text,
                                               std::string_view before = {},
                                               std::string_view after = {}) {
    const size_t plain = jsonPlainLength(text);
    if (plain == text.size()) return textAdd(out, before, "\"", text, "\"", after);
    out += before;
    jsonTextAddEscaped(out, text, plain);
    out += after;
}

// `inner` is the text between the quotes. Returns null, or what is wrong with it; `outStop` is
// then where. `out` may be null, to check only.
[[nodiscard]] const char* jsonTextRead(std::string_view inner, std::string* out, size_t* outStop);

// A JSON text (RFC 8259) as a row of nodes, each of which has the place of its value in the text:
// nothing is copied, and a tape that is used again allocates nothing more.
//
//     [1, "a"]    kArray next 3 | kNumber "1" next 2 | kString "a" next 3
//
// What lies within an array or an object follows it, up to its `next`; an object's keys and values
// take turns. Keys may repeat: the reader of an object checks.
//
// Strict: one value and blanks around it, no comments, no trailing commas, valid UTF-8.
//
// Threads: one user at a time.

// A message within a message takes at most four levels: the message, its array of fields, the
// field, and an array of messages.
constexpr uint32_t kMostNestedMessages = 128;
constexpr uint32_t kMostJsonDepth = 4 * kMostNestedMessages + 4;

// Offsets have 32 bits.
constexpr size_t kMostJsonBytes = size_t{1} << 30;

enum class JsonKind : uint8_t { kNull, kTrue, kFalse, kNumber, kString, kArray, kObject };

struct JsonNode {
    JsonKind kind;
    uint32_t begin;  // its place in the text; of a string, after its quote
    uint32_t end;
    uint32_t next;  // the node after it and all that lies within it
};

struct JsonTape {
    std::string_view text;
    std::vector<JsonNode> nodes;  // the first is the whole value

    // Where the text isn't JSON: what is wrong, and where.
    const char* fault = nullptr;
    size_t faultAt = 0;
};

// The text has to last as long as the tape is read.
[[nodiscard]] bool jsonTapeRead(JsonTape& tape, std::string_view text);

// The text of the value. Of a string, with its escapes replaced.
[[nodiscard]] std::string_view jsonTapeToken(const JsonTape& tape, uint32_t node);
void jsonTapeString(const JsonTape& tape, uint32_t node, std::string& out);
