// Fields of the command line: NAME=TEXT for a string, NAME:TYPE=VALUE for any other type.

#pragma once

#include <string>
#include <vector>

#include "bus/field_kind.h"

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
