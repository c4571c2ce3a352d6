// A set of sockets that one thread polls: the IO events registered for each condition, and the
// array that a poll works on.
//
// A pass builds the array from the events, polls it with no lock held, and reads the results.
// Events may be added and removed meanwhile. The array that the poll works on isn't moved: a set
// that grows during a pass uses its larger array from the end of the pass on.
//
// Ownership: one reference to each event in the set.
//
// Failure: kStatusInvalidIoSource for a socket that the condition has already, kStatusSocketLimit
// when the set can't grow, kStatusNoMemory, kStatusInvalidEvent for an event that isn't in it. An
// event's condition is one of enum pelmoIoCondition.
//
// Threads: this module takes no lock; evmLock serialises all calls. The poll itself uses only
// `pass` and `passCount`, which change only between two polls, and `leavesOut`, which limits its
// length.

#pragma once

#include <poll.h>

#include <cstdint>

#include "lib/base/annotate.h"
#include "lib/base/status.h"
#include "lib/runtime/evm_state.h"

struct Dpa;
struct Event;

inline constexpr uint32_t kFirstMaxSockets = 64;
inline constexpr uint32_t kMostSockets = 32768;
inline constexpr uint32_t kIoConditions = 3;  // read, write, exception

struct PollSet {
    uint32_t maxSockets;         // of one condition
    bool mayGrow;                // cleared once the limit was reached, and never set again
    bool inPass;                 // from pollSetPrepare to pollSetFinish
    bool leavesOut;              // the pass leaves out a socket, so the poll must be short
    Dpa* events[kIoConditions];  // by ascending source

    pollfd* pass;     // room for maxSockets of each condition
    pollfd* passNew;  // replaces `pass` at the end of the pass; null: not grown
    uint32_t passCount;
};

// Initialises a set; pollSetFree accepts it even after a failure.
[[nodiscard]] pelmoStatus pollSetInit(PollSet* set) PELMO_REQUIRES(evmLock);
void pollSetFree(PollSet* set) PELMO_REQUIRES(evmLock);

// Is it exactly one of the three conditions?
[[nodiscard]] bool pollSetKnows(uint32_t condition);

[[nodiscard]] bool pollSetHas(const PollSet* set, const Event* event) PELMO_REQUIRES(evmLock);
[[nodiscard]] pelmoStatus pollSetAdd(PollSet* set, Event* event) PELMO_REQUIRES(evmLock);

// The current pass forgets the event too: a new socket that gets the same number before the pass
// ends isn't mistaken for this one.
pelmoStatus pollSetRemove(PollSet* set, Event* event) PELMO_REQUIRES(evmLock);

// Builds one entry for each socket, whatever its conditions. A socket that is watched only for
// exceptions and hung up in the last pass is left out of every other pass: select would keep
// waiting for it, while poll would return at once for ever.
void pollSetPrepare(PollSet* set) PELMO_REQUIRES(evmLock);
void pollSetFinish(PollSet* set) PELMO_REQUIRES(evmLock);

// Did the poll find a descriptor that isn't open?
[[nodiscard]] bool pollSetMetClosed(const PollSet* set);

// The next event of the condition, 0 to 2, whose socket is ready; null for none. The search begins
// at place `from` of the pass, which moves past the event found. Events may be added and removed
// between two calls.
[[nodiscard]] Event* pollSetNextReady(const PollSet* set, uint32_t condition, uint32_t* from)
    PELMO_REQUIRES(evmLock);

// An event whose source is no longer what it was, a socket or another descriptor that poll can wait
// for, with its sourceValid cleared; null for none.
[[nodiscard]] Event* pollSetFindDead(PollSet* set) PELMO_REQUIRES(evmLock);

[[nodiscard]] bool sourceIsSocket(int32_t source);

// Can poll wait for it? A regular file, a folder or a closed number it can't.
[[nodiscard]] bool sourceIsPollable(int32_t source);
