#include <algorithm>
#include <list>

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
    const Message first = messageOn("A", "1"), second = messageOn("B", "2");
    const Message reserved = messageOn("_PM.X");
    pelmoMsg* messages[] = {first.get(), second.get(), reserved.get(), first.get()};
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 4), kStatusInvalidSubject);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 0), kStatusSuccess);
    Dpa* list = dpaCreate(2);
    ASSERT_TRUE(dpaAppend(list, first.get()) && dpaAppend(list, second.get()));
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
        const char *advisoryClass, *name;
        pelmoStatus status = kStatusSuccess;
        bool isLogged = false;
    } rows[] = {
        {"WARN", "X", kStatusSuccess, true},
        {"ERROR", "X", kStatusSuccess, true},
        {"INFO", "X"},
        {"OTHER", "X"},
        {"INFO", longest.c_str()},
        {"INFO", nullptr, kStatusInvalidArgument},
        {"A.B", "N", kStatusInvalidArgument},
        {"X", tooLongForText.c_str(), kStatusInvalidSubject},
        {"XY", tooLongForText.c_str(), kStatusInvalidArgument},
        {"INFO", "", kStatusInvalidSubject},
    };
    TestListener listener;
    for (const bool listens : {false, true}) {
        if (listens) (void)listener.listen(queue, "_PM.>");
        for (const auto& [advisoryClass, name, status, isLogged] : rows) {
            testing::internal::CaptureStderr();
            EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, advisoryClass, "S", name, "q"), status);
            const std::string log = testing::internal::GetCapturedStderr();
            const std::string words = "Pelmo Error Not Handled by Process:\n{ADV_CLASS=\"" +
                                      std::string(advisoryClass) +
                                      "\" ADV_SOURCE=\"S\" ADV_NAME=\"X\" ADV_DESC=\"q\"}\n";
            EXPECT_EQ(log.find(words) != std::string::npos, isLogged && !listens) << log;
            EXPECT_EQ(log.empty(), !isLogged || listens);
        }
    }
    EXPECT_EQ(dispatchAll(queue), 5u);

    bool isLimitAdvisory = false;
    listener.onMessage = [&](pelmoMsg* message) {
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &text), kStatusSuccess);
        EXPECT_STREQ(text, "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED");
        EXPECT_EQ(pelmoMsg_GetString(message, "ADV_DESC", &text, 0), kStatusNotFound);
        isLimitAdvisory = msgIsLimitAdvisory(message);
    };
    (void)pelmoTransport_SendAdvisory(kLocal, "WARN", "SYSTEM", "QUEUE.LIMIT_EXCEEDED", nullptr);
    dispatchAll(queue);
    EXPECT_TRUE(isLimitAdvisory);
}

// Queue hooks run in the middle of a delivery: one that sends, and one that ends listeners which
// are still to come.
TEST_F(IntraProcess, SurvivesWhatQueueHooksDo) {
    struct Trouble {
        std::list<TestListener> listeners;
        int depth = 0;
    } trouble;
    for (int i = 0; i < 200; ++i)
        trouble.listeners.emplace_back(queue, i % 2 == 0 ? "A" : "*");
    const auto hook = [](uint32_t, void* closure) {
        auto* self = static_cast<Trouble*>(closure);
        if (self->depth++ != 0) return;
        EXPECT_EQ(sendText(kLocal, "B", "from the hook"), kStatusSuccess);
        self->listeners.resize(100);
    };
    const Message first = messageOn("A", "first");
    {
        FailAlloc fail{.after = 0};  // the copy of so large a match
        EXPECT_EQ(pelmoTransport_Send(kLocal, first.get()), kStatusNoMemory);
    }
    ASSERT_EQ(pelmoQueue_SetHook(queue, hook, &trouble), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, first.get()), kStatusSuccess);
    dispatchAll(queue);
    bool hearsBoth = false;
    for (const TestListener& each : trouble.listeners) {
        EXPECT_EQ(each.texts.size(), std::exchange(hearsBoth, !hearsBoth) ? 2u : 1u);
        EXPECT_EQ(std::ranges::count(each.texts, "first"), 1);
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
// queue that requests arrive on. A request is answered when the one that it causes has been.
TEST_F(IntraProcess, AnswersRequestsAndKeepsFourQueuesAtMost) {
    const auto dispatch = [](uint32_t id, void*) {
        EXPECT_EQ(pelmoQueue_TimedDispatch(id, 0), kStatusSuccess);
    };
    EXPECT_EQ(pelmoQueue_SetHook(queue, dispatch, nullptr), kStatusSuccess);
    TestListener server(queue, "A");
    int depth = 0, answers = 1;
    const auto ask = [](const char* subject, const char* text, double seconds = -1) {
        const Message request = messageOn(subject, text);
        pelmoMsg* reply = nullptr;
        const pelmoStatus status =
            pelmoTransport_SendRequest(kLocal, request.get(), &reply, seconds);
        return status == kStatusSuccess ? textOf(Message(reply).get())
                                        : pelmoStatus_GetText(status);
    };
    server.onMessage = [&](pelmoMsg* request) {
        if (--depth > 0) {
            EXPECT_EQ(ask("A", "inner"), "re inner");
        }
        const Message reply = messageOn(nullptr, ("re " + textOf(request)).c_str());
        for (int i = 0; i < answers; ++i)
            EXPECT_EQ(pelmoTransport_SendReply(kLocal, reply.get(), request), kStatusSuccess);
    };
    const auto spareQueues = [] {
        Held<Transport> held;
        EXPECT_EQ(held.findLocked(kLocal), kStatusSuccess);
        EXPECT_EQ(dict32Count(held->requestQueues), 0u);
        return held->spareQueues->count;
    };
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
