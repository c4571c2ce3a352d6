#include "lib/transport/transport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <memory>
#include <thread>

#include "lib/containers/dpa.h"
#include "lib/containers/subject.h"
#include "lib/msg/trace_ops.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/local_bus.h"

namespace {

struct IntraProcess : testing::Test {
    LocalBus bus;
    TestQueue queue;
};

std::string elementOf(size_t characters) {
    return std::string(characters, 'x');
}

TEST_F(IntraProcess, DeliversBySubject) {
    struct Row {
        const char *listened, *sent;
        bool arrives;
    };
    const Row rows[] = {
        {"A.B", "A.B", true},       {"A.B", "A.C", false},
        {"A.*", "A.B", true},       {"A.*", "A.B.C", false},
        {"*.B", "A.B", true},       {"A.>", "A.B.C", true},
        {"A.>", "A", false},        {">", "A", true},
        {">", "_INBOX.7", false},   {"_INBOX.7", "_INBOX.7", true},
        {"*.7", "_INBOX.7", false}, {"A.*", "A.*", true},
        {"_PMX.>", "_PMX.Y", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.listened) + " <- " + row.sent);
        const TestListener listener(queue, row.listened);
        EXPECT_EQ(pelmoTransport_HasInterest(kLocal, row.sent), row.arrives ? 1u : 0u);
        EXPECT_EQ(sendText(kLocal, row.sent), kStatusSuccess);
        queue.drain();
        EXPECT_EQ(listener.texts.size(), row.arrives ? 1u : 0u);
    }
}

TEST_F(IntraProcess, RefusesSubjects) {
    const std::string longest = elementOf(127) + "." + elementOf(66);  // 200 bytes packed
    const std::string tooLong = longest + "x";
    struct Row {
        std::string subject;
        pelmoStatus listen, send;
    };
    const Row rows[] = {
        {"_INBOX.1", kStatusSuccess, kStatusSuccess},
        {"_INBOX.1.2", kStatusInvalidSubject, kStatusSuccess},
        {"_INBOX", kStatusInvalidSubject, kStatusSuccess},
        {"_INBOX.*", kStatusInvalidSubject, kStatusSuccess},
        {"_INBOX.>", kStatusInvalidSubject, kStatusSuccess},
        {"_PM.X", kStatusSuccess, kStatusInvalidSubject},
        {"_PM", kStatusSuccess, kStatusInvalidSubject},
        {"_PMX.Y", kStatusSuccess, kStatusSuccess},
        {longest, kStatusSuccess, kStatusSuccess},
        {tooLong, kStatusInvalidSubject, kStatusNoMemory},  // no message can have it
        {"A..B", kStatusInvalidSubject, kStatusNoMemory},
        {"", kStatusInvalidSubject, kStatusNoMemory},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.subject);
        TestListener listener;
        EXPECT_EQ(listener.listen(queue.id, row.subject.c_str()), row.listen);
        EXPECT_EQ(sendText(kLocal, row.subject.c_str()), row.send);
    }
    TestListener listener;
    EXPECT_EQ(listener.listen(queue.id, nullptr), kStatusInvalidSubject);
    EXPECT_EQ(listener.listen(77777, "A"), kStatusInvalidQueue);
    EXPECT_EQ(listener.listen(queue.id, "A", 77777), kStatusInvalidTransport);
    EXPECT_EQ(sendText(kLocal, nullptr), kStatusInvalidSubject);
}

TEST_F(IntraProcess, GivesEachListenerACopyOfItsOwn) {
    TestListener first(queue, "A");
    const TestListener second(queue, "A");
    first.onMessage = [](pelmoMsg* message) {
        EXPECT_EQ(pelmoMsg_UpdateString(message, "text", "changed by the first", 0),
                  kStatusSuccess);
    };
    const Message sent = messageOn("A", "as sent");
    ASSERT_EQ(pelmoTransport_Send(kLocal, sent.get()), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_UpdateString(sent.get(), "text", "changed by the sender", 0),
              kStatusSuccess);
    queue.drain();
    EXPECT_EQ(first.texts, Texts{"as sent"});
    EXPECT_EQ(second.texts, Texts{"as sent"});
}

// A "sub" that is an application's own field is the last resort; one of another type is none.
TEST_F(IntraProcess, FindsTheSubjectInAField) {
    const TestListener listener(queue, "A.B");
    const Message plain = messageOn(nullptr);
    ASSERT_EQ(pelmoMsg_AddSubjectText(plain.get(), "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, plain.get()), kStatusSuccess);
    const Message other = messageOn(nullptr);
    ASSERT_EQ(pelmoMsg_AddString(other.get(), "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, other.get()), kStatusInvalidSubject);
    queue.drain();
    EXPECT_EQ(listener.texts.size(), 1u);
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
    queue.drain();
    EXPECT_EQ(listener.texts, (Texts{"text", "text"}));
}

Texts vectorTexts;
void onVector(pelmoMsg** messages, uint32_t count) {
    std::string all;
    for (uint32_t i = 0; i < count; ++i) {
        all += textOf(messages[i]);
    }
    vectorTexts.push_back(all);
}

TEST_F(IntraProcess, ServesVectorAndPolledListeners) {
    vectorTexts.clear();
    const TestQueue polled(true);
    uint32_t vectorEvent = 0;
    uint32_t polledEvent = 0;
    ASSERT_EQ(
        pelmoEvent_CreateVectorListener(&vectorEvent, queue.id, onVector, kLocal, "A", nullptr),
        kStatusSuccess);
    ASSERT_EQ(_pelmoTransport_AddPolledListener(&polledEvent, polled.id, kLocal, "A"),
              kStatusSuccess);
    for (const char* text : {"1", "2", "3"}) {
        ASSERT_EQ(sendText(kLocal, "A", text), kStatusSuccess);
    }
    queue.drain();
    EXPECT_EQ(vectorTexts, Texts{"123"});
    pelmoMsg* message = nullptr;
    ASSERT_EQ(pelmoQueue_Poll(polled.id, &message, 0), kStatusSuccess);
    EXPECT_EQ(textOf(message), "1");
    EXPECT_EQ(pelmoMsg_Destroy(message), kStatusSuccess);
    pelmoEvent_DestroyEx(vectorEvent, nullptr);
    pelmoEvent_DestroyEx(polledEvent, nullptr);
}

TEST_F(IntraProcess, SendsVectorsUpToTheFirstFailure) {
    const TestListener listener(queue, ">");
    const Message good = messageOn("A", "1");
    const Message better = messageOn("B", "2");
    const Message reserved = messageOn("_PM.X");
    pelmoMsg* messages[] = {good.get(), better.get(), reserved.get(), good.get()};
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 4), kStatusInvalidSubject);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 0), kStatusSuccess);
    Dpa* list = dpaCreate(2);
    ASSERT_TRUE(dpaAppend(list, good.get()) && dpaAppend(list, better.get()));
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, list), kStatusSuccess);
    dpaDestroy(list);
    queue.drain();
    EXPECT_EQ(listener.texts, (Texts{"1", "2", "1", "2"}));

    messages[1] = nullptr;
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, messages, 4), kStatusInvalidMessage);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, static_cast<Dpa*>(nullptr)), kStatusInvalidArgument);
    EXPECT_EQ(pelmoTransport_Sendv(kLocal, nullptr, 1), kStatusInvalidArgument);
    EXPECT_EQ(pelmoTransport_Sendv(77777, messages, 1), kStatusInvalidTransport);
}

TEST_F(IntraProcess, FindsInterest) {
    const TestListener exact(queue, "A.B");
    const TestListener wild(queue, "A.*");
    uint8_t packed[kSubjectMaxBytes];
    struct Row {
        const char* subject;
        uint32_t event;
    };
    for (const Row& row : {Row{"A.B", exact.event}, Row{"A.*", wild.event}, Row{"A.C", 0}}) {
        uint32_t found = 0;
        ASSERT_GT(subjectFromText(packed, sizeof packed, row.subject), 0);
        EXPECT_EQ(pelmoTransport_FindInterest(kLocal, packed, &found), row.event != 0 ? 1u : 0u);
        EXPECT_EQ(found, row.event);
    }
    uint32_t found = 0;
    EXPECT_EQ(pelmoTransport_FindInterest(77777, packed, &found), 0u);
    EXPECT_EQ(pelmoTransport_FindInterest(kLocal, nullptr, &found), 0u);
    ASSERT_EQ(subjectInit(packed, sizeof packed), 3);
    EXPECT_EQ(pelmoTransport_FindInterest(kLocal, packed, &found), 0u);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A..B"), 0u);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, nullptr), 0u);
    EXPECT_EQ(pelmoTransport_HasInterest(77777, "A.B"), 0u);
}

TEST_F(IntraProcess, CountsInboxes) {
    char text[16];
    EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, sizeof text), kStatusSuccess);
    EXPECT_STREQ(text, "_INBOX.1");
    EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, 8), kStatusInsufficientBuffer);
    EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, text, 9), kStatusSuccess);
    EXPECT_STREQ(text, "_INBOX.3");
    EXPECT_EQ(pelmoTransport_CreateInbox(kLocal, nullptr, 9), kStatusInvalidArgument);
    EXPECT_EQ(pelmoTransport_CreateInbox(77777, text, 9), kStatusInvalidTransport);
}

TEST_F(IntraProcess, LogsAdvisoriesThatNobodyHears) {
    struct Row {
        const char *advisoryClass, *name;
        bool logged;
    };
    for (const Row& row : {Row{"WARN", "QUEUE.LIMIT_EXCEEDED", true}, Row{"ERROR", "X", true},
                           Row{"INFO", "X", false}, Row{"OTHER", "X", false}}) {
        LogText log;
        EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, row.advisoryClass, "SYSTEM", row.name, "q"),
                  kStatusSuccess);
        const std::string words =
            "Pelmo Error Not Handled by Process:\n{ADV_CLASS=\"" + std::string(row.advisoryClass) +
            "\" ADV_SOURCE=\"SYSTEM\" ADV_NAME=\"" + row.name + "\" ADV_DESC=\"q\"}\n";
        EXPECT_EQ(log.text().find(words) != std::string::npos, row.logged) << log.text();
        EXPECT_EQ(log.text().empty(), !row.logged);
    }
    LogText log;
    TestListener listener(queue, "_PM.*.SYSTEM.>");
    bool limitAdvisory = false;
    listener.onMessage = [&](pelmoMsg* message) {
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_GetSendSubject(message, &text), kStatusSuccess);
        EXPECT_STREQ(text, "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED");
        EXPECT_EQ(pelmoMsg_GetString(message, "ADV_DESC", &text, 0), kStatusNotFound);
        limitAdvisory = msgIsLimitAdvisory(message);
    };
    EXPECT_EQ(
        pelmoTransport_SendAdvisory(kLocal, "WARN", "SYSTEM", "QUEUE.LIMIT_EXCEEDED", nullptr),
        kStatusSuccess);
    queue.drain();
    EXPECT_EQ(listener.texts.size(), 1u);
    EXPECT_TRUE(limitAdvisory);
    EXPECT_EQ(log.text(), "");
}

TEST_F(IntraProcess, RefusesAdvisories) {
    const std::string longest = "D." + elementOf(120) + "." + elementOf(56);  // 200 packed in all
    struct Row {
        const char *advisoryClass, *source, *name;
        pelmoStatus status;
    };
    const std::string tooLongForText = elementOf(242);
    const Row rows[] = {
        {nullptr, "S", "N", kStatusInvalidArgument},
        {"INFO", nullptr, "N", kStatusInvalidArgument},
        {"INFO", "S", nullptr, kStatusInvalidArgument},
        {"A.B", "S", "N", kStatusInvalidArgument},
        {"X", "S", tooLongForText.c_str(), kStatusInvalidSubject},
        {"XY", "SY", tooLongForText.c_str(), kStatusInvalidArgument},
        {"INFO", "S", longest.c_str(), kStatusSuccess},
        {"INFO", "S", "", kStatusInvalidSubject},
    };
    const TestListener listener(queue, "_PM.>");
    for (const Row& row : rows) {
        EXPECT_EQ(
            pelmoTransport_SendAdvisory(kLocal, row.advisoryClass, row.source, row.name, nullptr),
            row.status);
    }
    EXPECT_EQ(pelmoTransport_SendAdvisory(77777, "INFO", "S", "N", nullptr),
              kStatusInvalidTransport);
    queue.drain();
    EXPECT_EQ(listener.texts.size(), 1u);
}

// A listener to everything, on the queue whose limit is met: each advisory comes to it as well, and
// causes no other.
TEST_F(IntraProcess, TakesItsOwnAdvisoriesWhileItDelivers) {
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(queue.id, kLimitDiscardFirst, 3, 2), kStatusSuccess);
    const TestQueue other;
    const TestListener limited(queue, ">");
    const TestListener unlimited(other, ">");
    for (const char* text : {"1", "2", "3", "4"}) {
        EXPECT_EQ(sendText(kLocal, "A", text), kStatusSuccess);
    }
    queue.drain();
    other.drain();
    EXPECT_EQ(std::count(limited.texts.begin(), limited.texts.end(), "no text"), 1);
    EXPECT_EQ(limited.texts.size(), 3u);
    Texts heard = unlimited.texts;
    std::erase(heard, "no text");
    EXPECT_EQ(heard, (Texts{"1", "2", "3", "4"}));
    EXPECT_EQ(unlimited.texts.size(), 5u);
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
    ASSERT_EQ(pelmoQueue_SetHook(queue.id, hook, &trouble), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, first.get()), kStatusSuccess);
    queue.drain();
    for (size_t i = 0; i < kListeners / 2; ++i) {
        Texts texts = trouble.listeners[i]->texts;
        EXPECT_EQ(texts.size(), i % 2 == 0 ? 1u : 2u);
        EXPECT_EQ(std::count(texts.begin(), texts.end(), "first"), 1);
    }
}

TEST_F(IntraProcess, DropsWhatADeadQueuesListenerWouldKeep) {
    TestListener listener;
    uint32_t dying = makeQueue();
    ASSERT_EQ(listener.listen(dying, "A"), kStatusSuccess);
    Held<Event> event;
    ASSERT_EQ(event.get(listener.event, IdAccess::kUnlocked), kStatusSuccess);
    pelmoQueue_DestroyEx(dying, nullptr, nullptr);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
    EXPECT_EQ(event->listener.inbox->count, 0u);
    listener.end();
    EXPECT_EQ(event->listener.inbox, nullptr);
    EXPECT_EQ(event->listener.transportId, kNoId);
    EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A"), 0u);
}

TEST_F(IntraProcess, EndsWithTheLibraryAlone) {
    TestListener listener(queue, "A");
    EXPECT_EQ(pelmoTransport_Destroy(kLocal), kStatusNotPermitted);
    EXPECT_EQ(pelmoTransport_Destroy(77777), kStatusInvalidTransport);
    EXPECT_EQ(Transport_CreateIntraProcess(), kStatusNoMemory);  // there is one
    libraryOpen = false;
    EXPECT_EQ(pelmoTransport_Destroy(kLocal), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Destroy(kLocal), kStatusInvalidTransport);
    libraryOpen = true;
    uint32_t transport = 0;
    EXPECT_EQ(pelmoEvent_GetListenerTransport(listener.event, &transport), kStatusInvalidTransport);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusInvalidTransport);
    listener.end();
    EXPECT_EQ(Transport_CreateIntraProcess(), kStatusSuccess);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
}

TEST_F(IntraProcess, RefusesCallsOnAClosedLibrary) {
    const Message message = messageOn("A");
    pelmoMsg* const messages[] = {message.get()};
    pelmoMsg* reply = nullptr;
    uint32_t number = 0;
    char text[32];
    libraryOpen = false;
    for (const pelmoStatus status :
         {pelmoTransport_Send(kLocal, nullptr), pelmoTransport_Sendv(kLocal, messages, 1),
          pelmoTransport_Sendv(kLocal, static_cast<Dpa*>(nullptr)),
          pelmoTransport_SendRequest(kLocal, message.get(), &reply, 0),
          pelmoTransport_SendReply(kLocal, message.get(), message.get()),
          pelmoTransport_CreateInbox(kLocal, text, sizeof text),
          pelmoTransport_SendAdvisory(kLocal, "A.B", "S", "N", nullptr),
          pelmoTransport_Distribute(kLocal, messageOn("A").release()),
          pelmoTransport_CreateNetwork(&number, nullptr, nullptr, nullptr),
          pelmoTransport_SetFirstListenerOnly(kLocal), pelmoTransport_SetQuietUnhandled(kLocal)}) {
        EXPECT_EQ(status, kStatusNotInitialized);
    }
    libraryOpen = true;
    EXPECT_EQ(pelmoTransport_CreateNetwork(&number, nullptr, nullptr, nullptr),
              kStatusDaemonNotConnected);
}

std::string traced;
[[gnu::format(printf, 2, 3)]] void keepTrace(uint32_t, const char* format, ...) {
    char line[200];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    traced = line;
}

TEST_F(IntraProcess, TracesCalls) {
    traceOps.write = keepTrace;
    traceOps.on = 1;
    traceOps.enabled[kTraceTransport] = 1;
    char inbox[20];
    (void)pelmoTransport_CreateInbox(kLocal, inbox, sizeof inbox);
    EXPECT_EQ(traced, "pelmoTransport_CreateInbox(10, _INBOX.1, 20)");
    (void)pelmoTransport_SetEcho(kLocal, true);
    EXPECT_EQ(traced, "pelmoTransport_SetEcho(10, \"true\")");
    (void)pelmoTransport_SetDescription(kLocal, nullptr);
    EXPECT_EQ(traced, "pelmoTransport_SetDescription(10, \"<NULL>\")");
    pelmoTransport_SendAdvisory(kLocal, "INFO", "S", "N", nullptr);
    EXPECT_EQ(traced, "pelmoTransport_SendAdvisory(10, \"INFO\", \"S\", \"N\", \"<NULL>\")");
    traceOps.on = 0;
    traceOps.enabled[kTraceTransport] = 0;
}

// Whatever fails, nobody gets half of it, and nothing stays behind.
TEST_F(IntraProcess, AnswersToFailingMemory) {
    const Message message = messageOn("A.B");
    const auto oneRun = [&] {
        TestListener first;
        TestListener second;
        const pelmoStatus listens[] = {first.listen(queue.id, "A.B"),
                                       second.listen(queue.id, "A.*")};
        const pelmoStatus sent = pelmoTransport_Send(kLocal, message.get());
        const pelmoStatus told = pelmoTransport_SendAdvisory(kLocal, "INFO", "S", "N", "text");
        const size_t failed = allocationsFailed();
        allocationsHeal();
        queue.drain();
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
    };
    EXPECT_GT(eachAllocationFails(oneRun), 10u);
    EXPECT_GT(eachAllocationFails([] {
                  Transport* transport = Transport_New(TransportKind::kIntraProcess);
                  if (transport != nullptr) Id_Release(&transport->header, false);
                  EXPECT_EQ(transport == nullptr, allocationsFailed() != 0);
              }),
              4u);
}

// Senders, listeners that come and go, and a thread that dispatches.
TEST_F(IntraProcess, ServesManyThreads) {
    constexpr int kRounds = 300;
    std::atomic<int> running = 3;
    const auto send = [&] {
        for (int i = 0; i < kRounds; ++i) {
            EXPECT_EQ(sendText(kLocal, "A.B"), kStatusSuccess);
        }
        --running;
    };
    const auto comeAndGo = [&] {
        for (int i = 0; i < kRounds; ++i) {
            uint32_t event = 0;
            const auto ignore = [](uint32_t, pelmoMsg*, void*) {};
            EXPECT_EQ(pelmoEvent_CreateListener(&event, queue.id, ignore, kLocal, "A.>", nullptr),
                      kStatusSuccess);
            EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
        }
        --running;
    };
    const TestListener steady(queue, "A.B");
    std::thread threads[] = {std::thread(send), std::thread(send), std::thread(comeAndGo)};
    while (running != 0) {
        (void)pelmoQueue_TimedDispatch(queue.id, 0.001);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    queue.drain();
    EXPECT_EQ(steady.texts.size(), size_t{2 * kRounds});
}

}  // namespace
