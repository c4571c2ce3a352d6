// Socket errors: the numbers that messages show, and their texts. The system's errno values are
// mapped to them in one table.
//
// Threads: any; nothing here changes. Texts are constant.

#pragma once

// 0 for 0; an errno that isn't in the table is returned unchanged.
[[nodiscard]] int socketErrorFromErrno(int error);

// "***Unknown***" for a number without a text.
[[nodiscard]] const char* socketErrorText(int code);
