// Messages as lines of JSON:
//
//     {"time":"2024-01-02T03:04:05.000000006Z","subject":"A.B","reply":"_INBOX.1",
//      "fields":[{"name":"x","id":7,"type":"i32","value":1}]}
//
// (in one line). "time" is when the message came in, and left out where it isn't known.
// "reply" is left out if there is none, "name" if a field has none, "id" if it is 0. Types
// and the form of values are of field_kind.h, texts of json.h. A value that doesn't decode,
// and one of the application's own types, has its type's number for a type ("130") and its bytes as
// hexadecimal digits. So has a nested message that is corrupt or nested beyond
// kMostNestedMessages, though its type stays "msg".
//
// docs/pelmo-messages.schema.json describes the lines. Reading gives the same message back.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "lib/pelmo.h"
#include "programs/json.h"
#include "programs/owned_message.h"

// Adds the line, without a line break; with the time, as it is, unless that is empty. On failure
// nothing is added: kStatusNoMemory, kStatusInvalidMessage for no message, or kStatusCorruptMessage
// for one whose fields can't be separated.
[[nodiscard]] pelmoStatus jsonWriteMessage(pelmoMsg* msg, std::string_view time, std::string& out);

// Which fields are to be shown; without a function all. It is asked once for each, in their order.
struct JsonFieldFilter {
    bool (*wants)(void* context, std::string_view name) = nullptr;
    void* context = nullptr;
};

// The fields of these records, an image's bytes after its head, as `"fields":[...]}`: for a line
// that begins with other members. Fails as the call above does.
[[nodiscard]] pelmoStatus jsonWriteFields(std::span<const uint8_t> records,
                                          const JsonFieldFilter& filter,
                                          std::string& out);

// Makes fields of the application's own types readable, and possible to send, as bytes. Once the
// library is open, before the first message.
void jsonAcceptOwnTypes();

// Reading:
//
// Strict: unknown keys, repeated keys, values that don't fit their type are refused. Keys
// come in any order. "name" may also be null, and "value" of a "none" be left out.
//
// Lines of messages from captures also say where a message was found, which is left aside here.
// Where a capture has no whole message the line says why, and has no fields that could be read.
//
// What can't be sent: arrays without elements, documents without a byte, and types below 128 that
// the library has no encoder for.
//
// Threads: one user at a time.

struct JsonReader {
    JsonTape tape;
    std::string words;  // of the value at hand

    // After a read that succeeded. Empty if the line has none. The time is any text.
    std::string subject;
    std::string reply;
    std::string time;
    bool isLacking = false;  // the line is of what isn't a whole message; nothing was added

    // After a read that failed: "column 7: what is wrong".
    std::string fault;
};

// Adds the line's fields to the message, and leaves setting its subjects to the caller. False where
// the line isn't such a message; the message may then have some of the fields.
[[nodiscard]] bool jsonReadMessage(JsonReader& reader, std::string_view line, pelmoMsg* msg);
