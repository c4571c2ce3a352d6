#include "watch/top/replay_pace.h"

#include <limits>

namespace {

void advance(ReplayPace& pace, double now) {
    if (!pace.isPaused) pace.captureSeconds += (now - pace.atSeconds) * pace.speed;
    pace.atSeconds = now;
}

}  // namespace

void paceSet(ReplayPace& pace, double now, double speed, bool isPaused) {
    advance(pace, now);
    pace.speed = speed;
    pace.isPaused = isPaused;
}

double paceWait(ReplayPace& pace, double now, double captureSeconds) {
    if (!pace.hasBegun) return 0;
    advance(pace, now);
    if (captureSeconds <= pace.captureSeconds) return 0;
    if (pace.isPaused) return std::numeric_limits<double>::infinity();
    return (captureSeconds - pace.captureSeconds) / pace.speed;
}

void paceShow(ReplayPace& pace, double now, double captureSeconds) {
    pace.hasBegun = true;
    pace.captureSeconds = captureSeconds;
    pace.atSeconds = now;
}
