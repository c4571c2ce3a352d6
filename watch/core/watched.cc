#include "watch/core/watched.h"

#include <unistd.h>

#include "lib/base/lock.h"
#include "trace/settings.h"
#include "watch/core/text.h"

namespace {

struct StateRow {
    WatchState state;
    const char* key;
    const char* words;
    const char* wordsSaved;  // of a saved capture, where they differ
    bool isWell;
};

// In the order of the enumeration.
constexpr StateRow kStates[] = {
    {WatchState::kLive, "live", "live", nullptr, true},
    {WatchState::kDown, "down", "the interface is down", nullptr, true},
    {WatchState::kWaiting, "waiting", "waiting for the interface", nullptr, false},
    {WatchState::kReading, "reading", "reading", nullptr, true},
    {WatchState::kRead, "read", "read to its end", nullptr, true},
    {WatchState::kFailed, "failed", "capture failed", "reading failed", false},
};

struct Watching {
    void (*onChange)() = nullptr;  // constant after the start
    Watched watched;               // likewise

    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    WatchedState state PELMO_GUARDED_BY(lock) = {};
};

Watching& watching() {
    static auto* const all = new Watching;  // threads may outlive main
    return *all;
}

const StateRow& rowOf(WatchState state) {
    return kStates[static_cast<size_t>(state)];
}

std::string safeCopy(const char* text) {
    char safe[512];
    return std::string(safeText(text, safe, sizeof safe));
}

bool isLinkState(WatchState state) {
    return state == WatchState::kLive || state == WatchState::kDown;
}

void set(WatchState state, const char* reason, bool isOfLink) {
    WatchedState next{
        .state = state, .since = {}, .reason = reason != nullptr ? safeCopy(reason) : ""};
    clockNow(&next.since);
    {
        const LockGuard guard(watching().lock);
        WatchedState& now = watching().state;
        if (now.state == WatchState::kFailed || now.state == state) return;
        if (isOfLink && !isLinkState(now.state)) return;
        std::swap(now, next);
    }
    if (watching().onChange != nullptr) watching().onChange();
}

}  // namespace

pelmoStatus watchedBegin(void (*onChange)()) {
    char name[256] = "";
    (void)gethostname(name, sizeof name - 1);
    Watched& watched = watching().watched;
    watched.host = safeCopy(name);
    clockNow(&watched.since);
    watching().onChange = onChange;
    const LockGuard guard(watching().lock);
    watching().state = {
        .state = traceSettings.liveCapture ? WatchState::kLive : WatchState::kReading,
        .since = watched.since,
        .reason = {}};
    return kStatusSuccess;
}

const Watched& watched() {
    return watching().watched;
}

WatchedState watchedState() {
    const LockGuard guard(watching().lock);
    return watching().state;
}

bool watchStateIsWell(WatchState state) {
    return rowOf(state).isWell;
}

const char* watchStateKey(WatchState state) {
    return rowOf(state).key;
}

std::string watchedWords(const WatchedState& state) {
    const StateRow& row = rowOf(state.state);
    const bool isSaved = !traceSettings.liveCapture && row.wordsSaved != nullptr;
    const std::string words = isSaved ? row.wordsSaved : row.words;
    return state.reason.empty() ? words : words + ": " + state.reason;
}

void watchedSet(WatchState state, const char* reason) {
    set(state, reason, false);
}

void watchedSetLink(bool isUp) {
    set(isUp ? WatchState::kLive : WatchState::kDown, nullptr, true);
}
