// Date-times from text, in the form that the library gives them:
//
//     2024-01-02 03:04:05Z    2024-01-02 03:04:05.000006000Z    -001-12-31 23:59:59Z
//
// A fraction has one to nine digits; a "T" may stand between day and hour. All in UTC, in the
// Gregorian calendar carried on in both directions, in which the year before 1 is -1.

#pragma once

#include <string_view>

#include "lib/pelmo.h"

// Returns null, or what is wrong with the text. Whether messages can carry so distant a date is
// told where it is added to one.
[[nodiscard]] const char* dateTextParse(std::string_view text, pelmoMsgDateTime& out);
