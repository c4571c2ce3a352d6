// A set of sockets that one thread polls: the IO events registered for each condition, and the
// array that a poll works on.
//
// A pass builds the array from the events, polls it with no lock held, and reads what came of it.
// Events come and go meanwhile. The array that the poll works on stays in its place: a set that
// grows during a pass takes its larger array up when the pass ends.
//
// Ownership: one reference to each event in the set.
//
// Failure: kStatusInvalidIoSource for a socket that the condition has already, kStatusSocketLimit
// where the set can't grow, kStatusNoMemory, kStatusInvalidEvent for an event that isn't in it. An
// event's condition is one of enum IoCondition.
//
// Threads: no lock; evmLock serialises all calls. A poll itself uses `pass` and `passCount` alone,
// which change only between two polls;
// `leavesOut` tells how long it may last.

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
    bool mayGrow;                // cleared for good once the ceiling was met
    bool inPass;                 // from pollSetPrepare to pollSetFinish
    bool leavesOut;              // the pass misses a socket: the poll is to be short
    Dpa* events[kIoConditions];  // by ascending source

    pollfd* pass;     // room for maxSockets of each condition
    pollfd* passNew;  // takes its place at the end of the pass; null: not grown
    uint32_t passCount;
};

// Fills in a set; after a failure too it is good for pollSetFree.
[[nodiscard]] pelmoStatus pollSetInit(PollSet* set) PELMO_REQUIRES(evmLock);
void pollSetFree(PollSet* set) PELMO_REQUIRES(evmLock);

// Is the condition one of the three, and nothing else?
[[nodiscard]] bool pollSetKnows(uint32_t condition);

[[nodiscard]] bool pollSetHas(const PollSet* set, const Event* event) PELMO_REQUIRES(evmLock);
[[nodiscard]] pelmoStatus pollSetAdd(PollSet* set, Event* event) PELMO_REQUIRES(evmLock);

// The pass under way forgets the event too: a socket that comes by the same number before the pass
// ends isn't taken for this one.
pelmoStatus pollSetRemove(PollSet* set, Event* event) PELMO_REQUIRES(evmLock);

// One entry for each socket, whatever its conditions. A socket that is watched for exceptions
// alone, and hung up in the pass before, is left out of every other pass: select would go on
// waiting for it, while a poll would never wait again.
void pollSetPrepare(PollSet* set) PELMO_REQUIRES(evmLock);
void pollSetFinish(PollSet* set) PELMO_REQUIRES(evmLock);

// Did the poll meet a descriptor that isn't open?
[[nodiscard]] bool pollSetMetClosed(const PollSet* set);

// The next event of the condition, from 0 to 2, whose socket is ready, from place `from` of the
// pass on, which moves behind it; null for none. Events may come and go between two calls.
[[nodiscard]] Event* pollSetNextReady(const PollSet* set, uint32_t condition, uint32_t* from)
    PELMO_REQUIRES(evmLock);

// An event whose source is no socket any more, and so its sourceValid cleared; null for none.
[[nodiscard]] Event* pollSetFindDead(PollSet* set) PELMO_REQUIRES(evmLock);

[[nodiscard]] bool sourceIsSocket(int32_t source);
