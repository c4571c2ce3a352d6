#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>

#include "lib/runtime/queue_internal.h"
#include "tests/support/runtime_objects.h"

namespace {

struct Queues : testing::Test {
    RuntimeTables tables;
    uint32_t queue = makeQueue();
    uint32_t synchronous = makeQueue(true);
};

enum Ring { kPending, kReady };

pelmoMsg* push(uint32_t queue, uint32_t event, Ring ring = kPending) {
    const Queue* record = recordOf<Queue>(queue);
    pelmoMsg* message = messageFor(event);
    EXPECT_TRUE(EntryRing_PushBack(ring == kReady ? record->ready : record->pending, message));
    return message;
}

TEST_F(Queues, AreForPollsOrForDispatch) {
    pelmoMsg* message = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(pelmoQueue_Poll(queue, &message, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_PollMany(queue, &message, 1, &count, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_SetHook(synchronous, nullptr, nullptr), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_SetLimitPolicy(synchronous, 0, 0, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_TimedDispatch(synchronous, 0), kStatusNotPermitted);
}

TEST_F(Queues, LimitTheirArgumentsFirst) {
    ASSERT_EQ(Queue_Create(nullptr, kDefaultQueueId, "1", false, false), kStatusSuccess);
    constexpr pelmoStatus kConflict = kStatusArgumentsConflict;
    const struct {
        uint32_t policy, most, discard;
        pelmoStatus status;
    } rows[] = {
        {1, 10, 1, kStatusSuccess}, {0, 0, 0, kStatusSuccess},   {0, 1, 0, kConflict},
        {0, 0, 1, kConflict},       {1, 10, 2, kConflict},       {1, 10, 0, kConflict},
        {1, 0, 1, kConflict},       {2, 10, 10, kStatusSuccess}, {2, 10, 11, kConflict},
        {2, 0, 0, kConflict},       {3, 1, 0, kStatusSuccess},   {3, 1, 2, kConflict},
        {4, 10, 1, kConflict},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.policy << ' ' << row.most << ' ' << row.discard);
        const auto set = [&row](uint32_t id) {
            return pelmoQueue_SetLimitPolicy(id, row.policy, row.most, row.discard);
        };
        const bool agrees = row.status == kStatusSuccess;
        EXPECT_EQ(set(queue), row.status);
        EXPECT_EQ(set(kDefaultQueueId), agrees ? kStatusNotPermitted : kConflict);
    }
    // Nor does it end while the library is open.
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusNotPermitted);
    libraryOpen = false;
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusSuccess);
}

struct Discard {
    uint32_t policy, amount;
    const char* before;  // L: a listener's, D: of an event that is gone, T: a timer's
    const char* after;   // '.' where one went
};

// With the first `inReady` entries in the one ring and the others in the other.
void checkDiscard(const Discard& row, size_t inReady) {
    SCOPED_TRACE(testing::Message() << row.policy << ' ' << row.before << ' ' << inReady);
    const uint32_t queue = makeQueue();
    const TestEvent listener(kEventListener, queue), timer(kEventTimer, queue);
    std::vector<const pelmoMsg*> expected;
    for (size_t i = 0; row.before[i] != '\0'; ++i) {
        const char kind = row.before[i];
        const uint32_t event = kind == 'L' ? listener.id : kind == 'T' ? timer.id : 0;
        const pelmoMsg* entry = push(queue, event, i < inReady ? kReady : kPending);
        if (row.after[i] != '.') expected.push_back(entry);
    }
    EXPECT_EQ(pelmoQueue_SetLimitPolicy(queue, row.policy, row.amount, row.amount), kStatusSuccess);
    EXPECT_EQ(entriesOf(queue), expected);
    EXPECT_EQ(countOf(queue), expected.size());
}

TEST_F(Queues, DropWhatTheirPolicySaysInEitherRing) {
    const Discard rows[] = {
        {kLimitDiscardNew, 1, "LLLL", "LLLL"},       {kLimitDiscardFirst, 1, "LLLL", ".LLL"},
        {kLimitDiscardFirst, 3, "LLTDLT", "..T.LT"}, {kLimitDiscardFirst, 3, "TLTLTTT", "T.T.TTT"},
        {kLimitDiscardLast, 1, "LLLL", "LLL."},      {kLimitDiscardLast, 2, "LTLDTT", "LT..TT"},
        {kLimitDiscardLast, 1, "TTT", "TTT"},        {kLimitDiscardLast, 2, "DTTT", ".TTT"},
        {kLimitDiscardFirst, 2, "LL", "LL"},  // not above the limit
    };
    for (const Discard& row : rows) {
        for (size_t inReady = 0; inReady <= std::strlen(row.before); ++inReady)
            checkDiscard(row, inReady);
    }
}

TEST_F(Queues, GivePolledMessagesAway) {
    const TestEvent event(kEventListener, synchronous);
    pelmoMsg* message = nullptr;
    for (const double seconds : {0.0, 0.001, std::nan("")})
        EXPECT_EQ(pelmoQueue_Poll(synchronous, &message, seconds), kStatusTimeout);

    push(synchronous, 0);
    pelmoMsg* const next = push(synchronous, event.id);
    msgClearOwned(next);
    ASSERT_EQ(pelmoQueue_Poll(synchronous, &message, -1), kStatusSuccess);
    EXPECT_EQ(message, next);
    EXPECT_EQ(pelmoMsg_Destroy(message), kStatusSuccess);
    push(synchronous, 0);
    EXPECT_EQ(pelmoQueue_Poll(synchronous, &message, 0), kStatusSuccess);
    EXPECT_EQ(message, nullptr);

    // A step of three, less what died; what has no room in the array stays.
    std::vector<const pelmoMsg*> pushed;
    for (const uint32_t id : {event.id, 0u, event.id, event.id, event.id})
        pushed.push_back(push(synchronous, id));
    pelmoMsg* many[4] = {};
    uint32_t count = 0;
    EXPECT_EQ(pelmoQueue_PollMany(synchronous, many, 3, &count, 0), kStatusSuccess);
    EXPECT_EQ(count, 3u);
    const pelmoMsg* const got[] = {pushed[0], pushed[2], pushed[3], nullptr};
    EXPECT_TRUE(std::ranges::equal(got, many));
    for (pelmoMsg* const each : std::span(many, 3))
        EXPECT_EQ(pelmoMsg_Destroy(each), kStatusSuccess);
    EXPECT_EQ(countOf(synchronous), 1u);
    event.destroy();
    EXPECT_EQ(pelmoQueue_PollMany(synchronous, many, 3, &count, -1), kStatusSuccess);
    EXPECT_EQ(count, 0u);
}

// Two that wait, one with a limit that is far away.
TEST_F(Queues, EndTheirPollsWithThemAndWithTheLibrary) {
    for (const pelmoStatus expected : {kStatusInvalidQueue, kStatusNotInitialized}) {
        const uint32_t polled = makeQueue(true);
        const auto poll = [=](double seconds) {
            pelmoMsg* message = nullptr;
            EXPECT_EQ(pelmoQueue_Poll(polled, &message, seconds), expected);
        };
        std::thread forever(poll, -1.0), longTime(poll, 1e6);
        awaitWaiters<Queue>(polled, 2);
        libraryOpen = expected != kStatusNotInitialized;
        EXPECT_EQ(pelmoQueue_DestroyEx(polled, nullptr, nullptr), kStatusSuccess);
        forever.join();
        longTime.join();
    }
}

}  // namespace
