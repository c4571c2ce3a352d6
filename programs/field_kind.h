// The types of fields as this program spells them: one row each, with the way from text and, for
// values that are short, the way back. The command line and both directions of JSON go by it.
//
// An array is its element's name with "[]" after it ("i32[]"). A type of the application's own,
// from 128 up, is its number, and so is whatever the library has no name for.
//
// Threads: nothing here changes.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lib/pelmo.h"

// What a value is in JSON.
enum class FieldForm : uint8_t {
    kNumber,   // a whole number
    kReal,     // a number, or one of the strings "NaN", "Infinity", "-Infinity"
    kTruth,    // true or false
    kText,     // a string
    kMessage,  // an object with "fields"
    kNothing,  // null
};

struct FieldValue {
    pelmoFieldData data{};
    std::string bytes;  // of types whose data is a pointer: the text, the bytes
};

struct FieldKind {
    std::string_view name;
    std::string_view member, arrayMember;  // `,"type":"NAME","value":`, and the same of an array
    uint8_t code;
    uint8_t sizeBytes;  // 0 if the value has its own size
    FieldForm form;
    uint8_t arrayCode;  // 0 if there is no array of it

    // Returns null, or what is wrong with the text. Null for types that can't be written as text.
    const char* (*parse)(std::string_view text, FieldValue& out);

    // Adds the value's JSON. Null where the value is no number, truth or address.
    void (*print)(std::string& out, const pelmoFieldData& data);
};

// Both null for a name or a code that isn't known. The code may be an array's.
[[nodiscard]] const FieldKind* fieldKindByName(std::string_view name);
[[nodiscard]] const FieldKind* fieldKindByCode(uint8_t code);

// "i8, u8, ...": those that can be written as text.
[[nodiscard]] std::string fieldKindNames();

// Adds a field to the message. Statuses as of pelmoMsg_AddField.
[[nodiscard]] pelmoStatus fieldAdd(
    pelmoMsg* msg, const FieldKind& type, const char* name, uint16_t id, const FieldValue& value);

// Date-times from text, in the form that the library gives them:
//
//     2024-01-02 03:04:05Z    2024-01-02 03:04:05.000006000Z    -001-12-31 23:59:59Z
//
// A fraction has one to nine digits; a "T" may separate day and hour. All in UTC, in the
// Gregorian calendar carried on in both directions, in which the year before 1 is -1.

// Returns null, or what is wrong with the text. Whether messages can carry so distant a date is
// reported when it is added to one.
[[nodiscard]] const char* dateTextParse(std::string_view text, pelmoMsgDateTime& out);

// Fields of the command line: NAME=TEXT for a string, NAME:TYPE=VALUE for any other type.

struct TextField {
    const char* word = nullptr;  // as typed
    std::string name;
    const FieldKind* type = nullptr;
    FieldValue value;
};

// Returns an empty text, or what is wrong with the word, which lasts as long as the field.
[[nodiscard]] std::string textFieldParse(const char* word, TextField& out);

// Adds them in order. On failure `outFault` is the one that the message doesn't take.
[[nodiscard]] pelmoStatus textFieldsAdd(pelmoMsg* msg,
                                        const std::vector<TextField>& fields,
                                        const TextField** outFault);
