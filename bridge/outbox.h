// What waits to be published to a stream, and what was published and isn't acknowledged: a queue
// within a bound of bytes, and a window at its beginning.
//
//     outboxAdd(outbox, item, now)            a message came from the bus
//     while (outboxNext(outbox, now)) ...     publish what it gives
//     outboxAcknowledge(outbox, number, now)  the stream has it
//     outboxBreak(outbox)                     the connection is gone
//
// Messages leave in the order they came in. What isn't acknowledged in time, or was on its way when
// the connection broke, is published again, together with all that was published after it, so that
// the order is kept; it may be a repeat and is marked so. The stream drops those that it has, by
// their numbers.
//
// At the bound the oldest go, whether they were published or not, and are counted. So a stream that
// is away costs the oldest messages and never holds up the bus.
//
// While it stands by, an outbox keeps what another bridge publishes, and gives nothing; what is
// older than that bridge can need is forgotten. When it takes over, all that is kept may be a
// repeat.
//
// Ownership: items are the outbox's. Times in nanoseconds of the steady clock. Threads: none of its
// own, one user at a time.

#pragma once

#include <cstdint>
#include <deque>
#include <set>
#include <string>

struct OutboxItem {
    std::string subject;
    std::string body;
    std::string reply;    // on the bus; may be empty
    std::string path;     // of bridges that it came by
    uint64_t number = 0;  // given by the outbox, from 1
    int64_t cameAt = 0;
    int64_t publishedAt = 0;  // the last time; 0: never
    bool isAcknowledged = false;
    bool mayBeRepeat = false;
};

struct OutboxLimits {
    size_t mostBytes = size_t{64} << 20;
    uint32_t window = 4096;  // published and not acknowledged
    int64_t answerTime = 5'000'000'000;
};

struct Outbox {
    OutboxLimits limits;
    bool standsBy = false;

    std::deque<OutboxItem> items;  // the oldest first, by their numbers without a gap
    uint32_t published = 0;        // so many of the first are on their way, or acknowledged
    uint32_t unacknowledged = 0;   // of them
    size_t bytes = 0;              // of all items
    uint64_t lastNumber = 0;
    std::set<uint64_t> unsure;  // dropped while on their way: the newest numbers
    int64_t heldUntil = INT64_MIN;

    // Counts since the start, for reports.
    uint64_t added = 0;
    uint64_t acknowledged = 0;
    uint64_t repeated = 0;
    uint64_t dropped = 0;  // at the bound, and not in the stream
    uint64_t refused = 0;  // by the stream for good
};

// Returns how many of the oldest went to make room for it, itself among them if it is larger than
// the bound.
uint64_t outboxAdd(Outbox& outbox, OutboxItem item, int64_t now);

// The next to publish, which is on its way from now on; null when there is none, the window is full
// or the outbox stands by. Valid until the next call.
[[nodiscard]] const OutboxItem* outboxNext(Outbox& outbox, int64_t now);

// Numbers that aren't on their way are left aside: they were acknowledged twice, or went at the
// bound.
void outboxAcknowledge(Outbox& outbox, uint64_t number);

// The stream doesn't take this message, and won't: it is dropped, and counted as refused.
void outboxRefuse(Outbox& outbox, uint64_t number);

// All that is on its way is published again.
void outboxBreak(Outbox& outbox);

// The same where one wasn't answered in time, or was answered with a passing fault.
void outboxRepeatFrom(Outbox& outbox, uint64_t number);

// Nothing is given until then: the stream has no room, or isn't there.
void outboxHold(Outbox& outbox, int64_t until);

// Repeats what has waited too long. Returns when to call next, kNever for nothing on its way.
int64_t outboxTick(Outbox& outbox, int64_t now);

// How long the oldest message has waited for its acknowledgement; 0 for none.
[[nodiscard]] int64_t outboxOldest(const Outbox& outbox, int64_t now);

// Stands by, and forgets what came before that time.
void outboxStandBy(Outbox& outbox, int64_t keepSince);
void outboxTakeOver(Outbox& outbox);
