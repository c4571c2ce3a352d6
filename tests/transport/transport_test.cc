#include <algorithm>

#include "lib/base/log.h"
#include "lib/containers/dpa.h"
#include "lib/containers/subject.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/transport_internal.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/local_bus.h"
#include "tests/support/scratch_folder.h"

namespace {

struct IntraProcess : testing::Test {
    LocalBus bus;
    uint32_t queue = makeQueue();
};

TEST_F(IntraProcess, DeliversBySubject) {
    const struct {
        const char *listened, *sent;
        bool arrives;
    } rows[] = {
        {"A.B", "A.C", false},      {"A.*", "A.B", true},           {"A.>", "A", false},
        {">", "_INBOX.7", false},   {"_INBOX.7", "_INBOX.7", true}, {">", "A", true},
        {"*.7", "_INBOX.7", false}, {"A.*", "A.*", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.listened) + " <- " + row.sent);
        const TestListener listener(queue, row.listened);
        EXPECT_EQ(pelmoTransport_HasInterest(kLocal, row.sent), row.arrives ? 1u : 0u);
        EXPECT_EQ(sendText(kLocal, row.sent), kStatusSuccess);
        dispatchAll(queue);
        EXPECT_EQ(listener.texts.size(), row.arrives ? 1u : 0u);
    }
}

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

TEST_F(IntraProcess, GivesEachListenerACopyOfItsOwn) {
    TestListener first(queue, "A");
    const TestListener second(queue, "A");
    const auto change = [](pelmoMsg* message) {
        EXPECT_EQ(pelmoMsg_UpdateString(message, "text", "changed", 0), kStatusSuccess);
    };
    first.onMessage = change;
    const Message sent = messageOn("A", "as sent");
    ASSERT_EQ(pelmoTransport_Send(kLocal, sent.get()), kStatusSuccess);
    change(sent.get());
    dispatchAll(queue);
    EXPECT_EQ(first.texts, Texts{"as sent"});
    EXPECT_EQ(second.texts, Texts{"as sent"});
}

TEST_F(IntraProcess, SendsAPlainCopyOfAForeignEnvelope) {
    // {sub=[A] return="R" x=1 data={text="text"}}, as it comes from elsewhere.
    const Message outer = newMessage();
    const Message inner = messageOn(nullptr);
    ASSERT_EQ(pelmoMsg_AddSubjectText(outer.get(), "sub", "A", 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_AddString(outer.get(), "return", "R", 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_AddI32(outer.get(), "x", 1, 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_AddMsg(outer.get(), "data", inner.get(), 0), kStatusSuccess);
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

TEST_F(IntraProcess, ServesPolledListeners) {
    const uint32_t polled = makeQueue(true);
    uint32_t event = 0;
    ASSERT_EQ(_pelmoTransport_AddPolledListener(&event, polled, kLocal, "A"), kStatusSuccess);
    ASSERT_EQ(sendText(kLocal, "A", "1"), kStatusSuccess);
    pelmoMsg* message = nullptr;
    ASSERT_EQ(pelmoQueue_Poll(polled, &message, 0), kStatusSuccess);
    EXPECT_EQ(textOf(message), "1");
    EXPECT_EQ(pelmoMsg_Destroy(message), kStatusSuccess);
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

TEST_F(IntraProcess, FindsInterest) {
    const TestListener exact(queue, "A.B"), wild(queue, "A.*");
    uint8_t packed[kSubjectMaxBytes] = {0, 3, 0};
    uint32_t found = 0;
    EXPECT_EQ(pelmoTransport_FindInterest(kLocal, packed, &found), 0u);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A..B"), 0u);
    for (const auto& [subject, event] :
         {std::pair{"A.B", exact.event}, {"A.*", wild.event}, {"A.C", 0u}}) {
        ASSERT_GT(subjectFromText(packed, sizeof packed, subject), 0);
        found = 0;
        EXPECT_EQ(pelmoTransport_FindInterest(kLocal, packed, &found), event != 0 ? 1u : 0u);
        EXPECT_EQ(found, event);
    }
}

TEST_F(IntraProcess, CountsInboxes) {
    char text[9];
    for (const char* const inbox : {"_INBOX.1", "_INBOX.3"}) {
        EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, 9), kStatusSuccess);
        EXPECT_STREQ(text, inbox);
        const Folder folder;
        const std::string trace = folder.path("trace");
        ASSERT_EQ(Tracing_Start("TPORT", trace.c_str(), nullptr), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, 8), kStatusInsufficientBuffer);
        Tracing_Stop();
        Tracing_Clear();
        logSetUtcStamp(false);
        EXPECT_NE(readFile(trace).find("pelmoTransport_CreateInbox(10, _INBOX."),
                  std::string::npos);
    }
}

TEST_F(IntraProcess, LogsAdvisoriesThatNobodyHears) {
    for (const char* advisoryClass : {"WARN", "ERROR", "INFO", "OTHER"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, advisoryClass, "SYSTEM", "X", "q"),
                  kStatusSuccess);
        const std::string log = testing::internal::GetCapturedStderr();
        const std::string words = "Pelmo Error Not Handled by Process:\n{ADV_CLASS=\"" +
                                  std::string(advisoryClass) +
                                  "\" ADV_SOURCE=\"SYSTEM\" ADV_NAME=\"X\" ADV_DESC=\"q\"}\n";
        const bool logged = advisoryClass[0] == 'W' || advisoryClass[0] == 'E';
        EXPECT_EQ(log.find(words) != std::string::npos, logged) << log;
        EXPECT_EQ(log.empty(), !logged);
    }
    TestListener listener(queue, "_PM.*.SYSTEM.>");
    bool limitAdvisory = false;
    listener.onMessage = [&](pelmoMsg* message) {
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &text), kStatusSuccess);
        EXPECT_STREQ(text, "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED");
        EXPECT_EQ(pelmoMsg_GetString(message, "ADV_DESC", &text, 0), kStatusNotFound);
        limitAdvisory = msgIsLimitAdvisory(message);
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(
        pelmoTransport_SendAdvisory(kLocal, "WARN", "SYSTEM", "QUEUE.LIMIT_EXCEEDED", nullptr),
        kStatusSuccess);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(dispatchAll(queue), 1u);
    EXPECT_TRUE(limitAdvisory);
}

TEST_F(IntraProcess, RefusesAdvisories) {
    const std::string longest =
        "D." + std::string(120, 'x') + "." + std::string(56, 'x');  // 200 packed in all
    const std::string tooLongForText(242, 'x');
    const struct {
        const char *advisoryClass, *name;
        pelmoStatus status;
    } rows[] = {
        {"INFO", nullptr, kStatusInvalidArgument},
        {"A.B", "N", kStatusInvalidArgument},
        {"X", tooLongForText.c_str(), kStatusInvalidSubject},
        {"XY", tooLongForText.c_str(), kStatusInvalidArgument},
        {"INFO", longest.c_str(), kStatusSuccess},
        {"INFO", "", kStatusInvalidSubject},
    };
    const TestListener listener(queue, "_PM.>");
    for (const auto& [advisoryClass, name, status] : rows)
        EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, advisoryClass, "S", name, nullptr), status);
    dispatchAll(queue);
    EXPECT_EQ(listener.texts.size(), 1u);
}

// A listener to everything, on the queue whose limit is met: each advisory comes to it as well, and
// causes no other.
TEST_F(IntraProcess, TakesItsOwnAdvisoriesWhileItDelivers) {
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(queue, kLimitDiscardFirst, 3, 2), kStatusSuccess);
    const uint32_t other = makeQueue();
    const TestListener limited(queue, ">"), unlimited(other, ">");
    uint32_t posts = 0;
    ASSERT_EQ(pelmoQueue_SetHook(other, expectTransportsFree, &posts), kStatusSuccess);
    for (const char* text : {"1", "2", "3", "4"})
        EXPECT_EQ(sendText(kLocal, "A", text), kStatusSuccess);
    dispatchAll(queue);
    dispatchAll(other);
    EXPECT_EQ(std::count(limited.texts.begin(), limited.texts.end(), "no text"), 1);
    EXPECT_EQ(limited.texts.size(), 3u);
    Texts heard = unlimited.texts;
    std::erase(heard, "no text");
    EXPECT_EQ(heard, (Texts{"1", "2", "3", "4"}));
    EXPECT_EQ(unlimited.texts.size(), 5u);
    EXPECT_EQ(posts, 5u);
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

TEST_F(IntraProcess, EndsWithTheLibraryAlone) {
    TestListener listener(queue, "A");
    uint32_t number = 0;
    EXPECT_EQ(pelmoTransport_Destroy(kLocal), kStatusNotPermitted);
    EXPECT_EQ(Transport_CreateIntraProcess(), kStatusNoMemory);  // there is one
    EXPECT_EQ(pelmoTransport_CreateNetwork(&number, nullptr, nullptr, nullptr),
              kStatusDaemonNotConnected);
    libraryOpen = false;
    // Told ahead of what else is wrong.
    EXPECT_EQ(pelmoTransport_Send(kLocal, nullptr), kStatusNotInitialized);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, nullptr), kStatusNotInitialized);
    EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, "A.B", "S", "N", nullptr), kStatusNotInitialized);
    EXPECT_EQ(pelmoTransport_Destroy(kLocal), kStatusSuccess);
    libraryOpen = true;
    EXPECT_EQ(pelmoEvent_GetListenerTransport(listener.event, &number), kStatusInvalidTransport);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusInvalidTransport);
    listener.end();
    EXPECT_EQ(Transport_CreateIntraProcess(), kStatusSuccess);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
}

// Whatever fails, nobody gets half of it, and nothing stays behind.
TEST_F(IntraProcess, AnswersToFailingMemory) {
    const Message message = messageOn("A.B");
    const size_t before = objectCount();
    const auto oneRun = [&] {
        TestListener first, second;
        const pelmoStatus listens[] = {first.listen(queue, "A.B"), second.listen(queue, "A.*")};
        const pelmoStatus sent = pelmoTransport_Send(kLocal, message.get());
        const pelmoStatus told = pelmoTransport_SendAdvisory(kLocal, "INFO", "S", "N", "text");
        const size_t failed = allocationsFailed();
        allocationsHeal();
        dispatchAll(queue);
        for (const pelmoStatus status : {listens[0], listens[1], sent, told}) {
            EXPECT_TRUE(status == kStatusSuccess || (failed != 0 && status == kStatusNoMemory));
        }
        const size_t listening = (first.event != kNoId ? 1 : 0) + (second.event != kNoId ? 1 : 0);
        const size_t received = first.texts.size() + second.texts.size();
        EXPECT_LE(received, listening);
        if (sent == kStatusSuccess) {
            EXPECT_EQ(received, listening);
        }
        first.end();
        second.end();
        EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A.B"), 0u);
        EXPECT_EQ(objectCount(), before);
    };
    EXPECT_GT(eachAllocationFails(oneRun), 10u);
}

}  // namespace
