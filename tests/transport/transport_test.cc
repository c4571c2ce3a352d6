#include <algorithm>

#include "lib/containers/dpa.h"
#include "lib/transport/transport_internal.h"
#include "tests/support/circuit_fixture.h"
#include "tests/support/fail_alloc.h"

namespace {

struct IntraProcess : testing::Test {
    LocalBus bus;
    uint32_t queue = makeQueue();
};

TEST_F(IntraProcess, RefusesSubjects) {
    const std::string longest =
        std::string(127, 'x') + "." + std::string(66, 'x');  // 200 bytes packed
    const std::string tooLong = longest + "x";
    const struct {
        std::string subject;
        pelmoStatus listen, send;
    } rows[] = {
        {"_INBOX.1", kStatusSuccess, kStatusSuccess},
        {"_INBOX.1.2", kStatusInvalidSubject, kStatusSuccess},
        {"_INBOX", kStatusInvalidSubject, kStatusSuccess},
        {"_INBOX.*", kStatusInvalidSubject, kStatusSuccess},
        {"_PM.X", kStatusSuccess, kStatusInvalidSubject},
        {"_PM", kStatusSuccess, kStatusInvalidSubject},
        {"_PMX.Y", kStatusSuccess, kStatusSuccess},
        {longest, kStatusSuccess, kStatusSuccess},
        {tooLong, kStatusInvalidSubject, kStatusNoMemory},  // no message can have it
        {"", kStatusInvalidSubject, kStatusNoMemory},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.subject);
        TestListener listener;
        EXPECT_EQ(listener.listen(queue, row.subject.c_str()), row.listen);
        EXPECT_EQ(sendText(kLocal, row.subject.c_str()), row.send);
    }
    EXPECT_EQ(TestListener().listen(queue, nullptr), kStatusInvalidSubject);
    EXPECT_EQ(sendText(kLocal, nullptr), kStatusInvalidSubject);
    // A "sub" that is an application's own field would be the last resort, but not as a string.
    const Message message = messageOn(nullptr);
    ASSERT_EQ(pelmoMsg_AddString(message.get(), "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, message.get()), kStatusInvalidSubject);
}

TEST_F(IntraProcess, SendsAPlainCopyOfAForeignEnvelope) {
    const Message outer = rawMessage("A", "return=R x=#1 data");
    ASSERT_EQ(msgOpenEnvelope(outer.get()), kStatusSuccess);
    ASSERT_TRUE(msgHasForeign(outer.get()));
    TestListener listener(queue, "A");
    listener.onMessage = [](pelmoMsg* message) {
        const char* reply = nullptr;
        EXPECT_FALSE(msgHasForeign(message));
        ASSERT_EQ(pelmoMsg_GetReplySubject(message, &reply), kStatusSuccess);
        EXPECT_STREQ(reply, "R");
    };
    EXPECT_EQ(pelmoTransport_Send(kLocal, outer.get()), kStatusSuccess);
    ASSERT_EQ(msgCloseEnvelope(outer.get()), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, outer.get()), kStatusSuccess);
    EXPECT_EQ(outer->dataOffset, 0u);  // as it was
    dispatchAll(queue);
    EXPECT_EQ(listener.texts, (Texts{"text", "text"}));
}

TEST_F(IntraProcess, SendsVectorsUpToTheFirstFailure) {
    const TestListener listener(queue, ">");
    const Message good = messageOn("A", "1"), better = messageOn("B", "2");
    const Message reserved = messageOn("_PM.X");
    pelmoMsg* messages[] = {good.get(), better.get(), reserved.get(), good.get()};
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 4), kStatusInvalidSubject);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 0), kStatusSuccess);
    Dpa* list = dpaCreate(2);
    ASSERT_TRUE(dpaAppend(list, good.get()) && dpaAppend(list, better.get()));
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, list), kStatusSuccess);
    dpaDestroy(list);
    dispatchAll(queue);
    EXPECT_EQ(listener.texts, (Texts{"1", "2", "1", "2"}));

    messages[1] = nullptr;
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 4), kStatusInvalidMessage);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, nullptr), kStatusInvalidArgument);
}

TEST_F(IntraProcess, NumbersItsInboxes) {
    char text[9];
    for (const char* const inbox : {"_INBOX.1", "_INBOX.3"}) {
        EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, 9), kStatusSuccess);
        EXPECT_STREQ(text, inbox);
        EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, 8), kStatusInsufficientBuffer);
    }
}

TEST_F(IntraProcess, DeliversAdvisoriesOrLogsThem) {
    // The longest that are sent have 200 bytes packed.
    const std::string longest = "D." + std::string(120, 'x') + "." + std::string(56, 'x');
    const std::string tooLongForText(242, 'x');
    const struct {
        const char *advisoryClass, *name, *description;
        pelmoStatus status;
        bool isLogged;
    } rows[] = {
        {"WARN", "X", "q", kStatusSuccess, true},
        {"ERROR", "X", "q", kStatusSuccess, true},
        {"INFO", "X", "q", kStatusSuccess, false},
        {"OTHER", "X", "q", kStatusSuccess, false},
        {"INFO", longest.c_str(), nullptr, kStatusSuccess, false},
        {"INFO", nullptr, nullptr, kStatusInvalidArgument, false},
        {"A.B", "N", nullptr, kStatusInvalidArgument, false},
        {"X", tooLongForText.c_str(), nullptr, kStatusInvalidSubject, false},
        {"XY", tooLongForText.c_str(), nullptr, kStatusInvalidArgument, false},
        {"INFO", "", nullptr, kStatusInvalidSubject, false},
    };
    const auto logOf = [](const auto& row) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(
            pelmoTransport_SendAdvisory(kLocal, row.advisoryClass, "S", row.name, row.description),
            row.status);
        return testing::internal::GetCapturedStderr();
    };
    for (const auto& row : rows) {
        const std::string log = logOf(row);
        const std::string words = "Pelmo Error Not Handled by Process:\n{ADV_CLASS=\"" +
                                  std::string(row.advisoryClass) +
                                  "\" ADV_SOURCE=\"S\" ADV_NAME=\"X\" ADV_DESC=\"q\"}\n";
        EXPECT_EQ(log.find(words) != std::string::npos, row.isLogged) << log;
        EXPECT_EQ(log.empty(), !row.isLogged);
    }
    TestListener listener(queue, "_PM.>");
    bool isLimitAdvisory = false;
    listener.onMessage = [&](pelmoMsg* message) {
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &text), kStatusSuccess);
        EXPECT_STREQ(text, "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED");
        EXPECT_EQ(pelmoMsg_GetString(message, "ADV_DESC", &text, 0), kStatusNotFound);
        isLimitAdvisory = msgIsLimitAdvisory(message);
    };
    EXPECT_EQ(
        pelmoTransport_SendAdvisory(kLocal, "WARN", "SYSTEM", "QUEUE.LIMIT_EXCEEDED", nullptr),
        kStatusSuccess);
    EXPECT_EQ(dispatchAll(queue), 1u);
    EXPECT_TRUE(isLimitAdvisory);
    listener.onMessage = nullptr;
    for (const auto& row : rows)
        EXPECT_EQ(logOf(row), "");
    EXPECT_EQ(dispatchAll(queue), 5u);
}

// Queue hooks run in the middle of a delivery: one that sends, and one that ends listeners which
// are still to come.
TEST_F(IntraProcess, SurvivesWhatQueueHooksDo) {
    constexpr size_t kListeners = 200;
    struct Trouble {
        std::vector<std::unique_ptr<TestListener>> listeners;
        int depth = 0;
    } trouble;
    for (size_t i = 0; i < kListeners; ++i) {
        trouble.listeners.push_back(std::make_unique<TestListener>(queue, i % 2 == 0 ? "A" : "*"));
    }
    const auto hook = [](uint32_t, void* closure) {
        auto* self = static_cast<Trouble*>(closure);
        if (self->depth++ == 0) {
            EXPECT_EQ(sendText(kLocal, "B", "from the hook"), kStatusSuccess);
            self->listeners.resize(kListeners / 2);
        }
    };
    const Message first = messageOn("A", "first");
    {
        FailAlloc fail{.after = 0};  // the copy of so large a match
        EXPECT_EQ(pelmoTransport_Send(kLocal, first.get()), kStatusNoMemory);
    }
    ASSERT_EQ(pelmoQueue_SetHook(queue, hook, &trouble), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, first.get()), kStatusSuccess);
    dispatchAll(queue);
    for (size_t i = 0; i < kListeners / 2; ++i) {
        Texts texts = trouble.listeners[i]->texts;
        EXPECT_EQ(texts.size(), i % 2 == 0 ? 1u : 2u);
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "first"), 1);
    }
}

TEST_F(IntraProcess, DropsWhatADeadQueuesListenerWouldKeep) {
    TestListener listener(queue, "A");
    Held<Event> event;
    ASSERT_EQ(event.find(listener.event), kStatusSuccess);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
    EXPECT_EQ(event->listener.inbox->count, 0u);
    listener.end();
    EXPECT_EQ(event->listener.inbox, nullptr);
    EXPECT_EQ(event->listener.transportId, kNoId);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A"), 0u);
}

// The wait for an answer dispatches the request's own queue alone: answers come from a hook of the
// queue that requests arrive on.
struct Requests : IntraProcess {
    Requests() {
        const auto dispatch = [](uint32_t id, void*) {
            EXPECT_EQ(pelmoQueue_TimedDispatch(id, 0), kStatusSuccess);
        };
        EXPECT_EQ(pelmoQueue_SetHook(queue, dispatch, nullptr), kStatusSuccess);
        // A request is answered when the one that it causes has been.
        server.onMessage = [this](pelmoMsg* request) {
            if (--depth > 0) {
                EXPECT_EQ(ask("A", "inner"), "re inner");
            }
            const Message reply = messageOn(nullptr, ("re " + textOf(request)).c_str());
            for (int i = 0; i < answers; ++i)
                EXPECT_EQ(pelmoTransport_SendReply(kLocal, reply.get(), request), kStatusSuccess);
        };
    }
    static std::string ask(const char* subject, const char* text, double seconds = -1) {
        const Message request = messageOn(subject, text);
        pelmoMsg* reply = nullptr;
        const pelmoStatus status =
            pelmoTransport_SendRequest(kLocal, request.get(), &reply, seconds);
        if (status != kStatusSuccess) return pelmoStatus_GetText(status);
        return textOf(Message(reply).get());
    }
    static uint32_t spareQueues() {
        Held<Transport> held;
        EXPECT_EQ(held.findLocked(kLocal), kStatusSuccess);
        EXPECT_EQ(dict32Count(held->requestQueues), 0u);
        return held->spareQueues->count;
    }

    TestListener server{queue, "A"};
    int depth = 0, answers = 1;
};

TEST_F(Requests, AreAnsweredAndKeepFourQueuesAtMost) {
    EXPECT_EQ(ask("A", "1"), "re 1");
    EXPECT_EQ(ask("A", "2", 60), "re 2");
    answers = 3;  // a second one doesn't disturb the next request on its queue
    EXPECT_EQ(ask("A", "3"), "re 3");
    EXPECT_EQ(ask("A", "4"), "re 4");
    EXPECT_EQ(spareQueues(), 1u);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "_INBOX.4"), 0u);
    EXPECT_EQ(ask("B", "unheard", 0), "Operation timed out");
    depth = 6;
    EXPECT_EQ(ask("A", "outer"), "re outer");
    EXPECT_EQ(spareQueues(), kMostSpareQueues);
}

}  // namespace
