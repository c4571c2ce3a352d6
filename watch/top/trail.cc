#include "watch/top/trail.h"

#include <algorithm>

namespace {

size_t mostEntries(const Trail& trail) {
    return trail.mostBytes / (sizeof(TrailLink) + trail.columns * sizeof(float));
}

// Entries lie at their number, in a ring.
size_t placeOf(const Trail& trail, uint64_t entry) {
    return static_cast<size_t>((entry - 1) % mostEntries(trail));
}

bool isOverwritten(const Trail& trail, uint64_t entry) {
    return entry + trail.links.size() <= trail.lastEntry;
}

}  // namespace

void trailBegin(Trail& trail) {
    ++trail.lastInterval;
}

uint64_t trailAdd(Trail& trail,
                  uint64_t previous,
                  std::span<const uint64_t> numbers,
                  double seconds) {
    const uint64_t entry = trail.lastEntry + 1;
    const size_t place = placeOf(trail, entry);
    if (place == trail.links.size()) {
        trail.rates.resize((place + 1) * trail.columns);
        trail.links.push_back({});
    }
    trail.links[place] = {previous, trail.lastInterval};
    float* rate = &trail.rates[place * trail.columns];
    for (const uint64_t number : numbers) {
        *rate++ = static_cast<float>(static_cast<double>(number) / seconds);
    }
    trail.lastEntry = entry;
    return entry;
}

size_t trailRead(
    const Trail& trail, uint64_t entry, uint64_t interval, size_t column, std::span<float> series) {
    std::ranges::fill(series, 0.0F);
    while (entry != kNoEntry && !isOverwritten(trail, entry)) {
        const size_t place = placeOf(trail, entry);
        const TrailLink& link = trail.links[place];
        const uint64_t age = interval - link.interval;
        if (age >= series.size()) break;
        series[series.size() - 1 - static_cast<size_t>(age)] =
            trail.rates[place * trail.columns + column];
        entry = link.previous;
    }
    return static_cast<size_t>(std::min<uint64_t>(interval, series.size()));
}
