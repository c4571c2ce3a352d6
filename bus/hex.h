// Bytes as hexadecimal digits, two each.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

void hexAdd(std::string& out, const void* bytes, size_t sizeBytes);

// False where the text isn't pairs of digits, in either case; `out` is then empty.
[[nodiscard]] bool hexParse(std::string_view text, std::string& out);

// -1 for what is no digit.
[[nodiscard]] int hexDigit(char character);
