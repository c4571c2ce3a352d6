// Numbers from text: the whole text or nothing, within the type's range.

#pragma once

#include <charconv>
#include <concepts>
#include <string_view>
#include <system_error>
#include <type_traits>

// Returns null, or what is wrong with the text, in words for its author. Decimal digits, with a
// minus sign where the type has one; neither blanks nor a plus sign.
template <std::integral Number>
[[nodiscard]] const char* numberParse(std::string_view text, Number& out) {
    const char* const end = text.data() + text.size();
    Number number{};
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::result_out_of_range && stop == end) return "out of range";
    if (error != std::errc{} || stop != end) {
        return std::is_signed_v<Number> ? "not a whole number" : "not a whole number from 0 up";
    }
    out = number;
    return nullptr;
}

// The same within bounds of the program's own.
template <std::integral Number>
[[nodiscard]] const char* numberParse(std::string_view text,
                                      std::type_identity_t<Number> least,
                                      std::type_identity_t<Number> most,
                                      Number& out) {
    Number number{};
    const char* const fault = numberParse(text, number);
    if (fault != nullptr) return fault;
    if (number < least || number > most) return "out of range";
    out = number;
    return nullptr;
}

// The same for reals, with a fraction and an exponent; "NaN", "Infinity" and "-Infinity" too.
[[nodiscard]] const char* numberParse(std::string_view text, float& out);
[[nodiscard]] const char* numberParse(std::string_view text, double& out);
