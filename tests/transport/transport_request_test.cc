
#include "lib/containers/dpa.h"
#include "tests/support/local_bus.h"

namespace {

constexpr double kWithoutLimit = -1;

// The wait for an answer dispatches the request's own queue alone: answers come from a hook of the
// queue that requests arrive on, or from another thread.
struct Requests : testing::Test {
    LocalBus bus;
    uint32_t queue = makeQueue();

    static uint32_t spareQueues() {
        Held<Transport> held;
        EXPECT_EQ(held.findLocked(kLocal), kStatusSuccess);
        EXPECT_EQ(dict32Count(held->requestQueues), 0u);
        return held->spareQueues->count;
    }
};

// Answers what arrives with the request's own text and a mark.
void answer(pelmoMsg* request) {
    const std::string text = "re " + textOf(request);
    const Message reply = messageOn(nullptr, text.c_str());
    EXPECT_EQ(pelmoTransport_SendReply(kLocal, reply.get(), request), kStatusSuccess);
}

std::string ask(const char* subject, const char* text, double seconds = kWithoutLimit) {
    const Message request = messageOn(subject, text);
    pelmoMsg* reply = nullptr;
    const pelmoStatus status = pelmoTransport_SendRequest(kLocal, request.get(), &reply, seconds);
    if (status != kStatusSuccess) return pelmoStatus_GetText(status);
    std::string answered = textOf(reply);
    EXPECT_EQ(pelmoMsg_Destroy(reply), kStatusSuccess);
    return answered;
}

// Dispatches a queue the moment that something is posted to it.
void dispatchAtOnce(uint32_t queue) {
    const auto hook = [](uint32_t id, void*) {
        EXPECT_EQ(pelmoQueue_TimedDispatch(id, 0), kStatusSuccess);
    };
    ASSERT_EQ(pelmoQueue_SetHook(queue, hook, nullptr), kStatusSuccess);
}

TEST_F(Requests, AreAnswered) {
    dispatchAtOnce(queue);
    TestListener server(queue, "A");
    server.onMessage = answer;
    EXPECT_EQ(ask("A", "1"), "re 1");
    EXPECT_EQ(ask("A", "2", 60), "re 2");
    // A second answer to the same request doesn't disturb the next one on its queue.
    server.onMessage = [](pelmoMsg* request) {
        for (int times = 0; times < 3; ++times)
            answer(request);
    };
    EXPECT_EQ(ask("A", "3"), "re 3");
    EXPECT_EQ(ask("A", "4"), "re 4");
    EXPECT_EQ(spareQueues(), 1u);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "_INBOX.4"), 0u);
    EXPECT_EQ(ask("B", "unheard", 0), "Operation timed out");
}

TEST_F(Requests, KeepFourQueuesAtMost) {
    constexpr int kDepth = 6;
    dispatchAtOnce(queue);
    // Each request is answered when the one that it causes has been.
    TestListener server(queue, "A");
    int depth = 0;
    server.onMessage = [&](pelmoMsg* request) {
        if (++depth < kDepth) {
            EXPECT_EQ(ask("A", "inner"), "re inner");
        }
        answer(request);
    };
    EXPECT_EQ(ask("A", "outer"), "re outer");
    EXPECT_EQ(spareQueues(), kMostSpareQueues);
}

}  // namespace
