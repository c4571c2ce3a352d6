// Bytes as hexadecimal digits, characters in UTF-8 (RFC 3629: no overlong forms, no surrogates),
// and moments as text.
//
// A byte that isn't part of valid UTF-8 is spelled by its reader: pelmobus writes "\udc80" in JSON,
// which it reads back as that byte; pelmowatch writes "\x80", for people.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr char kHexDigits[] = "0123456789abcdef";

// Adds the texts with one step of growth for all of them: what is added piece by piece to each line
// of a long output takes most of its time for the steps. In the caller, so that words of the
// program are stored as they are, without a call for each.
template <typename... Views>
[[gnu::always_inline]] inline void textAddViews(std::string& out, Views... views) {
    const size_t at = out.size();
    out.resize(at + (views.size() + ...));
    char* to = out.data() + at;
    ((to += views.copy(to, views.size())), ...);
}

// The same for whatever converts to texts.
template <typename... Pieces>
[[gnu::always_inline]] inline void textAdd(std::string& out, const Pieces&... pieces) {
    textAddViews(out, std::string_view(pieces)...);
}

// Two digits for each byte.
void hexAdd(std::string& out, const void* bytes, size_t sizeBytes);

// False if the text isn't pairs of digits, in either case; `out` is then empty.
[[nodiscard]] bool hexParse(std::string_view text, std::string& out);

// The value of a digit; -1 for any other character.
[[nodiscard]] int hexDigit(char character);

// The character at the start of the text. Returns its length in bytes; 0 if there is none.
[[nodiscard]] size_t utf8Read(std::string_view text, uint32_t& character);

// `character` is at most U+10FFFF.
void utf8Add(std::string& out, uint32_t character);

// Length in bytes of the character at the start of the text; 0 if there is none.
[[nodiscard]] size_t utf8Length(std::string_view text);

// "2024-01-02T03:04:05.000000006Z" of the seconds since the beginning of 1970 and the nanoseconds
// of the last one. The text is in the buffer.
inline constexpr size_t kUtcTextBytes = 64;
std::string_view utcText(int64_t seconds, uint32_t nanoseconds, char (&buffer)[kUtcTextBytes]);
