#include "lib/base/log_pace.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "lib/base/annotate.h"
#include "lib/base/clock.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"

namespace {

constexpr size_t kMostTexts = 32;
constexpr size_t kTextBytes = 96;    // longer ones are cut
constexpr size_t kKnownBytes = 512;  // what a line is known by
constexpr size_t kLineBytes = 512;   // of a kind's line, in the same way
constexpr double kPaceSeconds = 1.0;

struct PacedText {
    char text[kKnownBytes];
    double dueSeconds;  // when more lines may come than are left
    uint32_t left;
    uint64_t held;
};

struct LogPace {
    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    bool begun PELMO_GUARDED_BY(lock) = false;
    PacedText texts[kMostTexts] PELMO_GUARDED_BY(lock) = {};
    size_t count PELMO_GUARDED_BY(lock) = 0;
};

constinit LogPace pace;

// Null if there is no room for another.
PacedText* findOrAddLocked(const char* text, double now) PELMO_REQUIRES(pace.lock) {
    const std::span known(pace.texts, pace.count);
    const auto found = std::ranges::find_if(known, [text](const PacedText& each) {
        return std::strncmp(each.text, text, kKnownBytes - 1) == 0;
    });
    if (found != known.end()) return &*found;
    const auto isIdle = [now](const PacedText& each) {
        return each.held == 0 && now >= each.dueSeconds;
    };
    const bool isFull = pace.count == kMostTexts;
    const auto idle = isFull ? std::ranges::find_if(known, isIdle) : known.end();
    if (isFull && idle == known.end()) return nullptr;
    PacedText& added = isFull ? *idle : pace.texts[pace.count++];
    added = {.text = "", .dueSeconds = 0, .left = 0, .held = 0};
    (void)std::snprintf(added.text, sizeof added.text, "%s", text);
    return &added;
}

// Is the line to be written now? If so, *more is how many were held back before it; if not, it is
// held back.
bool isDue(const char* text, uint32_t linesOfSecond, bool always, uint64_t* more) {
    const LockGuard guard(pace.lock);
    if (!pace.begun && !always) return true;
    const double now = clockSteadySeconds();
    PacedText* const paced = findOrAddLocked(text, now);
    if (paced == nullptr) return true;
    if (now >= paced->dueSeconds) {
        paced->dueSeconds = now + kPaceSeconds;
        paced->left = linesOfSecond;
    }
    if (paced->left == 0) {
        ++paced->held;
        return false;
    }
    --paced->left;
    *more = std::exchange(paced->held, 0);
    return true;
}

// How many lines of this place's text were held back for a second or longer.
uint64_t takeHeld(size_t place, char (&text)[kKnownBytes]) {
    const LockGuard guard(pace.lock);
    PacedText& paced = pace.texts[place];
    const double now = clockSteadySeconds();
    if (paced.held == 0 || now < paced.dueSeconds) return 0;
    paced.dueSeconds = now + kPaceSeconds;
    paced.left = 0;
    std::strcpy(text, paced.text);
    return std::exchange(paced.held, 0);
}

void writeLine(const char* text, uint64_t more) {
    if (more == 0) {
        logPrint("%s", text);
    } else {
        logPrint("%s (%" PRIu64 " more)", text, more);
    }
}

}  // namespace

void logPaced(const char* format, ...) {
    char text[kTextBytes];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);

    uint64_t more = 0;
    if (isDue(text, 1, false, &more)) writeLine(text, more);
}

void logPacedAs(const char* kind, const char* format, ...) {
    uint64_t more = 0;
    if (!isDue(kind, kPacedLinesOfKind, false, &more)) return;
    char text[kLineBytes];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    writeLine(text, more);
}

void logPacedLine(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const bool made = vasprintf(&text, format, arguments) >= 0;
    va_end(arguments);
    if (!made) return;
    logPaceSettle();
    uint64_t more = 0;
    if (isDue(text, 1, true, &more)) writeLine(text, more);
    std::free(text);
}

void logPaceBegin() {
    const LockGuard guard(pace.lock);
    pace.begun = true;
}

void logPaceSettle() {
    for (size_t place = 0; place < kMostTexts; ++place) {
        char text[kKnownBytes];
        const uint64_t held = takeHeld(place, text);
        if (held != 0) writeLine(text, held - 1);
    }
}
