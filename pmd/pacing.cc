#include "pmd/pacing.h"

#include <algorithm>
#include <utility>

PaceMarks paceMarks(uint64_t backlogLimit) {
    return {std::min(kPaceHighBytes, backlogLimit / 2), std::min(kPaceLowBytes, backlogLimit / 4)};
}

bool paceEnds(Pace* pace, const Backlog& backlog, uint64_t lowBytes, double now) {
    if (backlog.waitingBytes <= lowBytes) return true;
    if (now - pace->testedAt < kPaceTestSeconds) return false;
    const bool isMoving = backlog.takenBytes - pace->takenBytes >= kPaceLeastBytes;
    *pace = {backlog.takenBytes, now};
    return !isMoving;
}

ExcessVerdict excessJudge(Excess* excess,
                          const Backlog& backlog,
                          uint64_t backlogLimit,
                          double now) {
    if (backlog.waitingBytes <= backlogLimit) return ExcessVerdict::kWithin;
    if (now - excess->testedAt < kExcessTestSeconds) return ExcessVerdict::kGoOn;
    const Backlog before = std::exchange(excess->tested, backlog);
    excess->testedAt = now;
    const bool wasOutrun = std::exchange(excess->isOutrun, false);
    const bool isStill = backlog.takenBytes - before.takenBytes < kExcessLeastBytes;
    const bool fallsBack = wasOutrun && backlog.waitingBytes >= before.waitingBytes;
    excess->badTests = isStill || fallsBack ? excess->badTests + 1 : 0;
    const bool isForLong = wasOutrun && now - excess->since >= kExcessLongestSeconds;
    return excess->badTests >= kExcessTests || isForLong ? ExcessVerdict::kTooSlow
                                                         : ExcessVerdict::kGoOn;
}
