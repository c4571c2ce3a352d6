// The largest rows of a table by two measures: what a page shows of tables that may have hundreds
// of thousands.
//
// Threads: any; no state.

#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <span>
#include <vector>

inline constexpr size_t kLargestRows = 1000;

// Appends the numbers of the rows that are the largest by a measure, at most `most`. Of equal rows
// the first ones.
template <typename Row, typename Measure>
void appendLargest(std::vector<uint32_t>& numbers,
                   std::span<const Row> rows,
                   size_t most,
                   Measure measure) {
    std::vector<uint32_t> all(rows.size());
    std::iota(all.begin(), all.end(), 0U);
    const size_t count = std::min(most, all.size());
    const auto isLarger = [&](uint32_t a, uint32_t b) {
        const uint64_t first = measure(rows[a]);
        const uint64_t second = measure(rows[b]);
        return first != second ? first > second : a < b;
    };
    const auto middle = all.begin() + static_cast<std::ptrdiff_t>(count);
    std::nth_element(all.begin(), middle, all.end(), isLarger);
    numbers.insert(numbers.end(), all.begin(), middle);
}

// The numbers of the rows that are among the largest by either measure, each once, ascending.
template <typename Row, typename First, typename Second>
[[nodiscard]] std::vector<uint32_t> largestRows(std::span<const Row> rows,
                                                size_t most,
                                                First first,
                                                Second second) {
    std::vector<uint32_t> numbers;
    appendLargest(numbers, rows, most, first);
    appendLargest(numbers, rows, most, second);
    std::ranges::sort(numbers);
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}
