// A JSON text (RFC 8259) as a row of nodes, each of which shows where its value stands in the text:
// nothing is copied, and a tape that is used again allocates nothing more.
//
//     [1, "a"]    kArray next 3 | kNumber "1" next 2 | kString "a" next 3
//
// What lies within an array or an object follows it, up to its `next`; an object's keys and values
// take turns. Keys may repeat: whoever reads an object looks.
//
// Strict: one value and blanks around it, no comments, no trailing commas, valid UTF-8.
//
// Threads: one user at a time.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A message within a message takes at most four levels: the message, its array of fields, the
// field, and an array of messages.
constexpr uint32_t kMostNestedMessages = 128;
constexpr uint32_t kMostJsonDepth = 4 * kMostNestedMessages + 4;

// Offsets have 32 bits.
constexpr size_t kMostJsonBytes = size_t{1} << 30;

enum class JsonKind : uint8_t { kNull, kTrue, kFalse, kNumber, kString, kArray, kObject };

struct JsonNode {
    JsonKind kind;
    uint32_t begin;  // where it stands in the text; of a string, behind its quote
    uint32_t end;
    uint32_t next;  // the node behind it and all that lies within it
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

// What stands in the text. Of a string, what its escapes stand for.
[[nodiscard]] std::string_view jsonTapeToken(const JsonTape& tape, uint32_t node);
void jsonTapeString(const JsonTape& tape, uint32_t node, std::string& out);
