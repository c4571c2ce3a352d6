// Is the library open? Every public call of the runtime tests this word first and answers
// kStatusNotInitialized when it is cleared.
//
// Calls that end objects (pelmoEvent_DestroyEx, pelmoQueue_DestroyEx and their like) don't test it:
// the library's own close destroys its objects after it has cleared the word.
//
// Threads: any thread reads it without a lock. It gives no ordering: after it was seen set,
// look-ups still fail for objects that are gone. Only open and close write it.

#pragma once

#include <atomic>

inline std::atomic<bool> libraryOpen{false};

[[nodiscard]] inline bool libraryIsOpen() {
    return libraryOpen.load(std::memory_order_acquire);
}
