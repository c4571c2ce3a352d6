#include "watch/core/option_row.h"

#include <charconv>
#include <string_view>

const char* optionNumber(const char* value,
                         unsigned long long least,
                         unsigned long long most,
                         unsigned long long* out) {
    const std::string_view text = value;
    const char* const end = text.data() + text.size();
    unsigned long long number = 0;
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::invalid_argument || stop != end) return "isn't a whole number";
    if (error != std::errc{} || number < least || number > most) return "is out of range";
    *out = number;
    return nullptr;
}
