#include "lib/transport/daemon/reconnect.h"

namespace {

constexpr uint32_t kQuickBreaks = 2;

}  // namespace

double reconnectDelay(BreakRow* row, double now, uint32_t random) {
    const bool isInRow = row->count != 0 && now - row->lastSeconds < kBreakRowSeconds;
    row->count = isInRow ? row->count + 1 : 1;
    row->lastSeconds = now;
    uint64_t milliseconds = random;
    if (row->count > kQuickBreaks) {
        milliseconds += uint64_t{1000} << (row->count - kQuickBreaks - 1) % 32;
    }
    return static_cast<double>(milliseconds) / 1000.0;
}
