// Is the library open? The one word of its state that every public call of the runtime tests first,
// and answers kStatusNotInitialized on.
//
// Calls that end objects (pelmoEvent_DestroyEx, pelmoQueue_DestroyEx and their like) don't test it:
// the library's own close ends its objects with the word already cleared.
//
// Threads: read by all without a lock. It orders nothing: who saw it set still meets look-ups that
// fail for objects that are gone. Written by open and close alone.

#pragma once

#include <atomic>

inline std::atomic<bool> libraryOpen{false};

[[nodiscard]] inline bool libraryIsOpen() {
    return libraryOpen.load(std::memory_order_acquire);
}
