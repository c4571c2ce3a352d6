#include "programs/number.h"

#include <limits>

namespace {

template <typename Real>
const char* parseReal(std::string_view text, Real& out) {
    constexpr Real kInfinity = std::numeric_limits<Real>::infinity();
    if (text == "NaN") return out = std::numeric_limits<Real>::quiet_NaN(), nullptr;
    if (text == "Infinity") return out = kInfinity, nullptr;
    if (text == "-Infinity") return out = -kInfinity, nullptr;

    // The conversion also accepts other words for these, which are refused here.
    constexpr const char* kNoNumber = "not a number";
    if (text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) return kNoNumber;
    const char* const end = text.data() + text.size();
    Real number{};
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::result_out_of_range && stop == end) return "out of range";
    if (error != std::errc{} || stop != end) return kNoNumber;
    out = number;
    return nullptr;
}

}  // namespace

const char* numberParse(std::string_view text, float& out) {
    return parseReal(text, out);
}

const char* numberParse(std::string_view text, double& out) {
    return parseReal(text, out);
}
