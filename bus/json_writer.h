// Messages as lines of JSON:
//
//     {"subject":"A.B","reply":"_INBOX.1","fields":[{"name":"x","id":7,"type":"i32","value":1}]}
//
// "reply" is left out where there is none, "name" where a field has none, "id" where it is 0. Types
// and the form of values are of field_kind.h, texts of json_text.h. A value that doesn't decode,
// and one of the application's own types, has its type's number for a type ("130") and its bytes as
// hexadecimal digits. So has a nested message that is corrupt or nested beyond
// kMostNestedMessages, though its type stays "msg".
//
// json_message.h reads such lines back into the same message.

#pragma once

#include <string>

#include "bus/owned_message.h"

struct JsonWriter {
    OwnedMessage scratch;  // converts a value at a time to the library's text of it
};

// Adds the line, without a line break. On failure nothing is added: kStatusNoMemory, or
// kStatusCorruptMessage for a message whose fields can't be told apart.
[[nodiscard]] pelmoStatus jsonWriteMessage(JsonWriter& writer, pelmoMsg* msg, std::string& out);

// Makes fields of the application's own types readable, and possible to send, as bytes. Once the
// library is open, ahead of the first message.
void jsonAcceptOwnTypes();
