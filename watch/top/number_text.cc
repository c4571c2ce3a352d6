#include "watch/top/number_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace {

constexpr char kUnits[] = "kMGTPE";

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    std::array<char, 48> text;
    const int length = std::snprintf(text.data(), text.size(), format, values...);
    return {text.data(), static_cast<size_t>(length)};
}

// Three digits, as many of them behind the point as there is room for.
std::string scaled(double number) {
    size_t unit = 0;
    number /= 1000;
    while (number >= 999.5 && unit + 2 < sizeof kUnits) {
        number /= 1000;
        ++unit;
    }
    const int decimals = number < 9.995 ? 2 : number < 99.95 ? 1 : 0;
    return formatted("%.*f%c", decimals, number, kUnits[unit]);
}

std::string fitting(const std::string& exact, double number, size_t columns) {
    return exact.size() <= columns ? exact : scaled(number);
}

}  // namespace

std::string countText(uint64_t number, size_t columns) {
    return fitting(std::to_string(number), static_cast<double>(number), columns);
}

std::string rateText(double rate, size_t columns) {
    if (rate == 0) return "0";
    if (rate < 0.005) return "<0.01";
    const int decimals = rate < 0.995 ? 2 : rate < 99.95 ? 1 : 0;
    return fitting(formatted("%.*f", decimals, rate), rate, columns);
}

std::string toldText(double number, size_t columns) {
    constexpr double kMost = 1e15;
    if (!(number >= 0 && number < kMost)) return "-";
    return fitting(formatted("%.0f", number), number, columns);
}

std::string barsText(std::span<const float> series, bool hasBlocks) {
    constexpr const char* kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr const char* kLetters[] = {"_", ".", ":", "-", "=", "+", "*", "#"};
    constexpr int kHighest = 7;
    const float most = series.empty() ? 0 : std::ranges::max(series);
    std::string text;
    for (const float value : series) {
        const int height =
            value > 0
                ? std::clamp(static_cast<int>(std::ceil(value / most * kHighest)), 1, kHighest)
                : 0;
        text += (hasBlocks ? kBlocks : kLetters)[height];
    }
    return text;
}

std::string spanText(double seconds) {
    const bool isWhole = std::abs(seconds - std::round(seconds)) < 0.05;
    if (seconds < 119.5) return formatted("%.*f s", seconds < 9.95 && !isWhole ? 1 : 0, seconds);
    if (seconds < 119.5 * 60) return formatted("%.0f min", seconds / 60);
    return formatted("%.0f h", seconds / 3600);
}
