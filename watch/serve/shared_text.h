// A text that changes and that many clients read: the newest, and at most one before it that slow
// readers still hold. While they do, the newest can't be replaced, and later askers get it although
// it is old: so readers that take nothing hold two texts of a kind at most, whatever comes
// meanwhile.
//
// All texts together are bounded too (bodyBytes, kMostBodyBytes): where they reach the bound, a
// text without a reader makes room for the one that follows it, and if that isn't enough none is
// written before one is given back. Anyone who hands on intervals never waits for any of this.
//
// Threads: no lock; those of the server's thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "watch/serve/body.h"

// A bus of 20,000 hosts and 200,000 subjects has texts of 67 MB.
inline constexpr size_t kMostBodyBytes = size_t{256} << 20;

struct SharedText {
    BodyHold newest;      // empty: there is none yet
    BodyHold old;         // held here for as long as others hold it
    uint64_t number = 0;  // of the newest, in whatever way its owner counts
};

// Call it before a new text is written.
[[nodiscard]] inline bool sharedTextMayRenew(SharedText& text) {
    if (text.old && !text.old.isShared()) text.old = {};
    const bool isHeld = text.newest && text.newest.isShared();
    if (isHeld && text.old) return false;
    if (bodyBytes() < kMostBodyBytes) return true;
    if (isHeld || !text.newest || bodyBytes() - text.newest.text().size() >= kMostBodyBytes)
        return false;
    text.newest = {};
    return true;
}

inline void sharedTextRenew(SharedText& text, BodyHold next, uint64_t number) {
    if (text.newest && text.newest.isShared()) text.old = std::move(text.newest);
    text.newest = std::move(next);
    text.number = number;
}
