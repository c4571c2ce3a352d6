#include "watch/serve/subject_text.h"

#include <charconv>

namespace {

// The buffer's size as subjectAppendBytes wants it: the subject stays below.
constexpr int32_t kRoom = kSubjectMaxBytes + 1;

// The character at the start of the text, and takes it off. False where a backslash begins neither
// "\\" nor "\xHH".
bool takeCharacter(std::string_view& text, char* out) {
    constexpr size_t kHexBytes = 4;
    if (text[0] != '\\') {
        *out = text[0];
        text.remove_prefix(1);
        return true;
    }
    if (text.starts_with("\\\\")) {
        *out = '\\';
        text.remove_prefix(2);
        return true;
    }
    if (!text.starts_with("\\x") || text.size() < kHexBytes) return false;
    uint8_t byte = 0;
    const char* const end = text.data() + kHexBytes;
    if (std::from_chars(text.data() + 2, end, byte, 16).ptr != end) return false;
    *out = static_cast<char>(byte);
    text.remove_prefix(kHexBytes);
    return true;
}

bool appendElement(std::string_view text, uint8_t* packed) {
    char characters[kSubjectMaxBytes];
    size_t length = 0;
    while (!text.empty()) {
        if (length == sizeof characters || !takeCharacter(text, &characters[length])) return false;
        ++length;
    }
    return subjectAppendBytes(packed, kRoom, characters, length) >= 0;
}

}  // namespace

bool subjectFromSafeText(std::string_view text, uint8_t (&packed)[kSubjectMaxBytes]) {
    if (subjectInit(packed, sizeof packed) < 0) return false;
    while (!text.empty()) {
        const size_t dot = text.find('.');
        if (!appendElement(text.substr(0, dot), packed)) return false;
        if (dot == std::string_view::npos) return true;
        text.remove_prefix(dot + 1);
        if (text.empty()) return appendElement(text, packed);
    }
    return true;
}
