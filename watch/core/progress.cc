#include "watch/core/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "trace/run/start_steps.h"

namespace {

constexpr double kDrawSeconds = 0.5;
constexpr const char* kClearLine = "\r\033[K";

struct Progress {
    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    bool drawn PELMO_GUARDED_BY(lock) = false;
    bool ended PELMO_GUARDED_BY(lock) = false;

    double startSeconds = 0;  // constant after the start
};

constinit Progress progress;

// What a terminal doesn't take is no matter.
void writeText(const char* text) {
    if (write(STDERR_FILENO, text, std::strlen(text)) < 0) return;
}

void draw() {
    char text[kProgressBytes];
    progressText(text, clockSteadySeconds() - progress.startSeconds, sourceExtent());
    if (*text == '\0') return;
    char line[kProgressBytes + 8];
    std::snprintf(line, sizeof line, "%s%s", kClearLine, text);
    const LockGuard guard(progress.lock);
    if (progress.ended) return;
    progress.drawn = true;
    writeText(line);
}

struct Unit {
    double bytes;
    const char* name;
};

Unit unitOf(uint64_t bytes) {
    constexpr Unit kUnits[] = {{1e9, "GB"}, {1e6, "MB"}, {1e3, "kB"}};
    for (const Unit& unit : kUnits) {
        if (static_cast<double>(bytes) >= unit.bytes) return unit;
    }
    return {1, "bytes"};
}

}  // namespace

void progressText(char (&text)[kProgressBytes], double seconds, const CaptureExtent& extent) {
    *text = '\0';
    if (extent.fileBytes == 0 || extent.readBytes == 0) return;
    const uint64_t readBytes = std::min(extent.readBytes, extent.fileBytes);  // a file may shrink
    const auto done = static_cast<double>(readBytes);
    const auto whole = static_cast<double>(extent.fileBytes);
    const Unit unit = unitOf(extent.fileBytes);
    const double leftSeconds = std::max(0.0, seconds) * (whole - done) / done;
    const auto left = static_cast<unsigned>(std::lround(std::min(leftSeconds, 359999.0)));
    std::snprintf(text, sizeof text, "%3d%%  %.1f of %.1f %s  %u:%02u left",
                  static_cast<int>(100 * done / whole), done / unit.bytes, whole / unit.bytes,
                  unit.name, left / 60, left % 60);
}

pelmoStatus progressStart() {
    if (isatty(STDERR_FILENO) == 0) return kStatusSuccess;
    progress.startSeconds = clockSteadySeconds();
    return startTimer<draw>(kDrawSeconds);
}

void progressEnd() {
    const LockGuard guard(progress.lock);
    if (progress.drawn && !progress.ended) writeText(kClearLine);
    progress.ended = true;
}
