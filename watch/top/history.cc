#include "watch/top/history.h"

#include <algorithm>

namespace {

size_t mostEntries(const History& history) {
    return history.mostBytes / (sizeof(HistoryLink) + history.columns * sizeof(float));
}

// Entries lie at their number, in a ring.
size_t placeOf(const History& history, uint64_t entry) {
    return static_cast<size_t>((entry - 1) % mostEntries(history));
}

bool isOverwritten(const History& history, uint64_t entry) {
    return entry + history.links.size() <= history.lastEntry;
}

}  // namespace

void historyBegin(History& history) {
    ++history.lastInterval;
}

uint64_t historyAdd(History& history,
                    uint64_t previous,
                    std::span<const uint64_t> numbers,
                    double seconds) {
    const uint64_t entry = history.lastEntry + 1;
    const size_t place = placeOf(history, entry);
    if (place == history.links.size()) {
        history.rates.resize((place + 1) * history.columns);
        history.links.push_back({});
    }
    history.links[place] = {previous, history.lastInterval};
    float* rate = &history.rates[place * history.columns];
    for (const uint64_t number : numbers) {
        *rate++ = static_cast<float>(static_cast<double>(number) / seconds);
    }
    history.lastEntry = entry;
    return entry;
}

size_t historyRead(const History& history,
                   uint64_t entry,
                   uint64_t interval,
                   size_t column,
                   std::span<float> series) {
    std::ranges::fill(series, 0.0F);
    while (entry != kNoEntry && !isOverwritten(history, entry)) {
        const size_t place = placeOf(history, entry);
        const HistoryLink& link = history.links[place];
        const uint64_t age = interval - link.interval;
        if (age >= series.size()) break;
        series[series.size() - 1 - static_cast<size_t>(age)] =
            history.rates[place * history.columns + column];
        entry = link.previous;
    }
    return static_cast<size_t>(std::min<uint64_t>(interval, series.size()));
}
