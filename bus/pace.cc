#include "bus/pace.h"

Pace paceStart(double rate, int64_t now) {
    return {rate, now, 0};
}

// Each time is counted from the start, so that roundings don't add up.
int64_t paceDue(const Pace& pace) {
    if (pace.rate <= 0) return 0;
    return steadyAfter(pace.start, static_cast<double>(pace.count) / pace.rate);
}

void paceNext(Pace& pace, int64_t now) {
    if (pace.rate <= 0) return;
    if (now - paceDue(pace) > kMostLate) paceRestart(pace, now);
    ++pace.count;
}

void paceRestart(Pace& pace, int64_t now) {
    pace = paceStart(pace.rate, now);
}
