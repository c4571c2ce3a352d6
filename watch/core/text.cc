#include "watch/core/text.h"

#include <algorithm>
#include <charconv>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "programs/text.h"

namespace {

constexpr size_t kMostOfCharacter = 16;  // four bytes, each "\xHH"

constexpr bool isPlain(uint8_t byte) {
    return byte >= ' ' && byte < 0x7f && byte != '\\';
}

// No control, line or paragraph separator, mark that turns the direction, or byte order mark.
bool isHarmless(uint32_t code) {
    if (code < ' ' || (code >= 0x7f && code < 0xa0)) return false;
    if (code >= 0x200b && code <= 0x200f) return false;
    if (code >= 0x2028 && code <= 0x202e) return false;
    return (code < 0x2060 || code > 0x206f) && code != 0x61c && code != 0xfeff;
}

char* appendEscaped(char* at, std::string_view bytes) {
    for (const char byte : bytes) {
        const auto value = static_cast<uint8_t>(byte);
        *at++ = '\\';
        *at++ = 'x';
        *at++ = kHexDigits[value >> 4];
        *at++ = kHexDigits[value & 0xf];
    }
    return at;
}

// Appends the first character of the text, which isn't empty, and takes it off.
char* appendCharacter(char* at, std::string_view& text) {
    uint32_t character = 0;
    const size_t length = utf8Read(text, character);
    const std::string_view bytes = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(bytes.size());
    if (length == 0 || !isHarmless(character)) return appendEscaped(at, bytes);
    if (character == '\\') *at++ = '\\';
    return at + bytes.copy(at, bytes.size());
}

// Most elements are plain from end to end.
char* appendElement(char* at, std::string_view element) {
    for (const char byte : element) {
        if (!isPlain(static_cast<uint8_t>(byte)) || byte == '.') break;
        *at++ = byte;
        element.remove_prefix(1);
    }
    while (!element.empty()) {
        if (element[0] == '.') {
            at = appendEscaped(at, element.substr(0, 1));
            element.remove_prefix(1);
        } else {
            at = appendCharacter(at, element);
        }
    }
    return at;
}

}  // namespace

std::string_view addressText(uint32_t address, char (&buffer)[kAddressTextBytes]) {
    const uint32_t word = hostOrder32(address);
    char* at = buffer;
    for (const int shift : {24, 16, 8, 0}) {
        if (shift != 24) *at++ = '.';
        at = std::to_chars(at, buffer + sizeof buffer, word >> shift & 0xff).ptr;
    }
    *at = '\0';
    return {buffer, static_cast<size_t>(at - buffer)};
}

std::string_view subjectSafeText(const uint8_t* subject, char (&buffer)[kSafeSubjectBytes]) {
    char* at = buffer;
    const uint8_t* element = subjectFirst(subject);
    for (uint32_t left = subjectElementCount(subject); left > 0; --left) {
        const size_t characters = size_t{element[0]} - 2;  // without the size and the closing NUL
        at = appendElement(at, {reinterpret_cast<const char*>(element + 1), characters});
        if (left > 1) *at++ = '.';
        element = subjectNext(element);
    }
    *at = '\0';
    return {buffer, static_cast<size_t>(at - buffer)};
}

std::string_view safeText(std::string_view bytes, char* buffer, size_t sizeBytes) {
    char* at = buffer;
    while (!bytes.empty()) {
        char character[kMostOfCharacter];
        const auto length = static_cast<size_t>(appendCharacter(character, bytes) - character);
        if (length >= sizeBytes - static_cast<size_t>(at - buffer)) break;
        at += std::string_view(character, length).copy(at, length);
    }
    *at = '\0';
    return {buffer, static_cast<size_t>(at - buffer)};
}
