// Posting: from a source that fired to an entry on its queue.
//
// Failure: kStatusInvalidEvent, kStatusInvalidQueue, kStatusNoMemory.
//
// Threads: any, with no lock of the library held, since a post may send an advisory and run a
// queue's hook, which may make any call.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct Event;
struct Queue;
struct pelmoMsg;

// One firing. A listener's oldest waiting message becomes the entry (nothing happens if it has
// none), a timer or IO event gets an empty message. A listener's message that a queue at its limit
// refuses is gone; that too is a success, as a poster has no use for it.
[[nodiscard]] pelmoStatus Event_Post(Event* event);

// The same for each of several in order; neighbours of one queue are posted to it in one step. An
// event that can't be posted is skipped, since no caller could use its status.
void Event_PostEach(std::span<Event* const> events);

struct PostEntry {
    uint32_t eventId;
    pelmoMsg* message;
};

// Many messages for listeners of one queue. Owns them, whatever the result: those that
// can't be queued are destroyed.
void Queue_PostBatch(uint32_t queueId, std::span<const PostEntry> entries);
