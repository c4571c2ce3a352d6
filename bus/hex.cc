#include "bus/hex.h"

void hexAdd(std::string& out, const void* bytes, size_t sizeBytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto* at = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < sizeBytes; ++i) {
        out += kDigits[at[i] >> 4];
        out += kDigits[at[i] & 15];
    }
}

bool hexParse(std::string_view text, std::string& out) {
    out.clear();
    if (text.size() % 2 != 0) return false;
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0) return out.clear(), false;
        out += static_cast<char>(high << 4 | low);
    }
    return true;
}

int hexDigit(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    const int lower = character | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}
