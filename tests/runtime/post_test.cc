#include "lib/runtime/post.h"

#include <cstring>
#include <functional>

#include "tests/support/runtime_objects.h"

namespace {

// What advisories report, in place of transports: the queue's name each. `meanwhile` runs in each,
// and the sender must hold no lock.
std::vector<std::string> advisories;
std::function<void()> meanwhile;

pelmoStatus keepAdvisory(uint32_t transport,
                         const char* advisoryClass,
                         const char* source,
                         const char* name,
                         const char* description) {
    EXPECT_EQ(transport, kIntraProcessTransportId);
    EXPECT_STREQ(advisoryClass, "WARN");
    EXPECT_STREQ(source, "SYSTEM");
    EXPECT_STREQ(name, "QUEUE.LIMIT_EXCEEDED");
    advisories.emplace_back(description);
    if (meanwhile) meanwhile();
    return kStatusNoMemory;  // which is ignored
}

const pelmoMsg* post(const TestEvent& listener, bool advisory = false) {
    pelmoMsg* message = messageFor(0);
    if (advisory) msgSetLimitAdvisory(message);
    listener.deliver(message);
    EXPECT_EQ(Event_Post(listener.event), kStatusSuccess);
    return message;
}

struct Posts : testing::Test {
    RuntimeTables tables;
    uint32_t queue = makeQueue();
    TestEvent timer{kEventTimer, queue, &advisories}, listener{kEventListener, queue, &queue};

    Posts() {
        transportOps.sendAdvisory = keepAdvisory;
        advisories.clear();
        meanwhile = nullptr;
    }
    ~Posts() override { transportOps = {}; }
};

// Posts, L a listener's message, A one that reports a limit, T a timer's, and which are left.
struct Limited {
    uint32_t policy, most, discard;
    const char* posts;
    const char* left;
    size_t advisories;
};

// One by one, or as a batch.
void checkLimit(const Limited& row, bool batch) {
    SCOPED_TRACE(testing::Message() << row.policy << ' ' << row.posts << ' ' << batch);
    const uint32_t queue = makeQueue();
    const TestEvent timer(kEventTimer, queue), listener(kEventListener, queue);
    advisories.clear();
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(queue, row.policy, row.most, row.discard), kStatusSuccess);
    std::string left(std::strlen(row.posts), '.');
    std::vector<const pelmoMsg*> posted;
    if (batch) posted = postBatch(queue, std::vector<uint32_t>(left.size(), listener.id));
    for (const char* kind = row.posts; !batch && *kind != '\0'; ++kind) {
        if (*kind == 'T') {
            EXPECT_EQ(Event_Post(timer.event), kStatusSuccess);
            posted.push_back(entriesOf(queue).back());
        } else {
            posted.push_back(post(listener, *kind == 'A'));
        }
    }
    // A block that was given back may serve a later message: the last of a pointer counts.
    for (const pelmoMsg* entry : entriesOf(queue)) {
        const auto last = std::find(posted.rbegin(), posted.rend(), entry);
        ASSERT_NE(last, posted.rend());
        const auto place = static_cast<size_t>(posted.rend() - last) - 1;
        left[place] = row.posts[place];
    }
    EXPECT_EQ(left, row.left);
    EXPECT_EQ(advisories, std::vector<std::string>(row.advisories, "queue"));
}

TEST_F(Posts, MeetTheLimitAsThePolicySays) {
    const Limited rows[] = {
        {kLimitDiscardFirst, 3, 1, "LLLL", ".LLL", 1},
        {kLimitDiscardFirst, 3, 1, "LLLLLL", "...LLL", 3},
        {kLimitDiscardFirst, 4, 3, "LLLLLL", "...LLL", 1},
        {kLimitDiscardLast, 3, 1, "LLLLL", "LL..L", 2},
        {kLimitDiscardNew, 3, 1, "LLLLL", "LLL..", 2},
        {kLimitDiscardNew, 2, 1, "LLTTL", "LLTT.", 3},  // timers go over the limit
        {kLimitDiscardFirst, 2, 1, "TLTL", "T.TL", 2},  // and aren't dropped
        {kLimitDiscardLast, 2, 1, "TTTT", "TTTT", 2},
        {kLimitDiscardFirst, 2, 0, "LLL", "LLL", 1},
        {kLimitDiscardNew, 2, 1, "LLA", "L.A", 0},  // makes a place for itself
        {kLimitDiscardNew, 2, 1, "TTA", "TTA", 0},
        {kLimitDiscardFirst, 2, 1, "LLAL", "..AL", 1},  // and leaves that to the next
        {kLimitDiscardLast, 2, 1, "LLAL", "L..L", 1},
    };
    for (const Limited& row : rows) {
        checkLimit(row, false);
        if (std::strspn(row.posts, "L") == std::strlen(row.posts)) checkLimit(row, true);
    }
}

TEST_F(Posts, ReportTheLimitWithNoLockHeld) {
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(queue, kLimitDiscardFirst, 1, 1), kStatusSuccess);
    post(listener);
    Queue* record = recordOf<Queue>(queue);
    meanwhile = [&] {
        for (Lock* lock : {&record->header.lock, &record->dataLock, &listener.event->header.lock})
            EXPECT_TRUE(isFree(*lock));
        EXPECT_EQ(pelmoQueue_SetName(queue, "meanwhile"), kStatusSuccess);
    };
    post(listener);
    postBatch(queue, {listener.id});
    EXPECT_EQ(advisories, (std::vector<std::string>{"queue", "meanwhile"}));

    // Both may be gone when the post goes on.
    const auto endMeanwhile = [this](auto end) {
        const TestEvent other(kEventListener, queue);
        other.deliver(messageFor(0));
        meanwhile = [&] { end(other); };
        const pelmoStatus status = Event_Post(other.event);
        meanwhile = nullptr;
        return status;
    };
    EXPECT_EQ(endMeanwhile([](const TestEvent& event) { event.destroy(); }), kStatusInvalidEvent);
    post(listener);
    const auto endQueue = [this](const TestEvent&) {
        EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
    };
    EXPECT_EQ(endMeanwhile(endQueue), kStatusInvalidQueue);
}

TEST_F(Posts, OfABatchDropTheRestWhenTheQueueEnds) {
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(queue, kLimitDiscardLast, 1, 0), kStatusSuccess);
    bool hasEnded = false;
    const auto hook = [](uint32_t, void* ended) { EXPECT_FALSE(*static_cast<bool*>(ended)); };
    ASSERT_EQ(pelmoQueue_SetHook(queue, hook, &hasEnded), kStatusSuccess);
    const auto end = [](uint32_t, void* ended) { *static_cast<bool*>(ended) = true; };
    meanwhile = [&] { (void)pelmoQueue_DestroyEx(queue, end, &hasEnded); };
    pelmoMsg* const first = messageFor(listener.id);
    msgRetain(first);
    const PostEntry batch[] = {{listener.id, first}, {listener.id, messageFor(listener.id)}};
    Queue_PostBatch(queue, batch);
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(advisories.size(), 1u);
    // What waited went with it, although events still keep the queue's record.
    EXPECT_EQ(first->refCount.load(), 1u);
    msgRelease(first);
    postBatch(queue, {listener.id});  // and all of it if there is none
}

TEST_F(Posts, OfABatchKeepTheirOrderPassOverDeadEventsAndCallTheHookForEach) {
    const TestEvent second(kEventListener, queue), cutOff(kEventListener, queue);
    const TestEvent dead(kEventListener, queue);
    cutOff.event->listener.transportId = kNoId;
    dead.destroy();
    uint32_t calls = 0;
    const auto hook = [](uint32_t id, void* closure) {
        EXPECT_TRUE(isFree(recordOf<Queue>(id)->header.lock));
        ++*static_cast<uint32_t*>(closure);
    };
    EXPECT_EQ(pelmoQueue_SetHook(queue, hook, &calls), kStatusSuccess);
    EXPECT_EQ(Event_Post(listener.event), kStatusSuccess);  // nothing waits
    const auto posted = postBatch(queue, {listener.id, listener.id, dead.id, second.id, cutOff.id,
                                          dead.id, listener.id, kNoId});
    const auto left = entriesOf(queue);
    ASSERT_EQ(left, (std::vector{posted[0], posted[1], posted[3], posted[6]}));
    EXPECT_EQ(left[1]->deliveryClosure, &queue);
    EXPECT_EQ(left[2]->deliveryEvent, second.id);
    EXPECT_EQ(calls, 4u);
}

// A hook that runs on a thread of its own until the test lets it end.
struct SlowHook {
    std::atomic<bool> runs{false}, mayEnd{false}, hasEnded{false}, queueIsGone{false};
    std::jthread thread;

    SlowHook(uint32_t queue, const TestEvent& event) {
        EXPECT_EQ(pelmoQueue_SetHook(queue, run, this), kStatusSuccess);
        thread = std::jthread([&event] { EXPECT_EQ(Event_Post(event.event), kStatusSuccess); });
        runs.wait(false);
    }
    void end() {
        mayEnd = true;
        mayEnd.notify_all();
    }
    static void run(uint32_t, void* closure) {
        auto& self = *static_cast<SlowHook*>(closure);
        self.runs = true;
        self.runs.notify_all();
        self.mayEnd.wait(false);
        self.hasEnded = true;
    }
};

TEST_F(Posts, LetAHookEndBeforeItIsReplacedAndBeforeTheCompletion) {
    SlowHook slow(queue, timer);
    Queue* const record = recordOf<Queue>(queue);
    std::thread removing([&] {
        (void)pelmoQueue_SetHook(queue, nullptr, nullptr);
        EXPECT_TRUE(slow.hasEnded);
    });
    for (bool waits = false; !waits; std::this_thread::yield()) {
        const LockGuard guard(record->header.lock);
        waits = record->hookWaiters == 1;
    }
    // A run of the new one doesn't count: only the former one's closure is given up.
    static uint32_t calls;
    calls = 0;
    const auto replace = [](uint32_t id, void*) {
        ++calls;
        EXPECT_EQ(pelmoQueue_SetHook(id, nullptr, nullptr), kStatusSuccess);
    };
    {
        const LockGuard guard(record->header.lock);
        record->hook = replace;
    }
    postBatch(queue, {listener.id, listener.id, listener.id});
    EXPECT_EQ(calls, 1u);  // the thread's own run ends at once, and doesn't wait for the other's

    const auto complete = [](uint32_t, void* hook) {
        auto& of = *static_cast<SlowHook*>(hook);
        EXPECT_TRUE(of.hasEnded);
        of.queueIsGone = true;
    };
    EXPECT_EQ(pelmoQueue_DestroyEx(queue, complete, &slow), kStatusSuccess);
    EXPECT_FALSE(slow.queueIsGone);
    slow.end();
    slow.thread.join();
    removing.join();
    EXPECT_TRUE(slow.queueIsGone);
}

}  // namespace
