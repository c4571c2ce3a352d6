#include "pmd/pacing.h"

bool paceEnds(Pace* pace, uint64_t waitingBytes, double now) {
    if (waitingBytes <= kPaceLowBytes) return true;
    if (now - pace->testedAt < kPaceTestSeconds) return false;
    // Nothing is added for it by this sender; what others add counts against it.
    const bool isMoving = waitingBytes + kPaceLeastBytes <= pace->waitingBytes;
    *pace = {waitingBytes, now};
    return !isMoving;
}
