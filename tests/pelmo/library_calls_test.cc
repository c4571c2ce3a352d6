// What the public calls promise wrappers and event loops: ends that can be waited for, waits that
// can be ended, requests that call back, and values that don't change on their way.

#include <atomic>
#include <cmath>
#include <csignal>
#include <limits>
#include <string_view>

#include "lib/pelmo.h"
#include "tests/support/local_bus.h"

namespace {

constexpr double kLong = 60;

struct OpenLibrary : NoCopy {
    OpenLibrary() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    }
    ~OpenLibrary() { pelmo_Close(); }

    [[nodiscard]] pelmoStatus dispatch(double seconds = kLong) const {
        return pelmoQueue_TimedDispatch(queue, seconds);
    }

    uint32_t queue = kNoId;
};

// Not within the callback, also where it dispatches on and another callback asks. Here it destroys
// its own event and runs on; another thread, which comes late, waits for it.
TEST(DestroyWait, WaitsForTheLastCallbackAndRefusesWithinIt) {
    const OpenLibrary library;
    std::atomic<bool> gone{false}, asks{false}, over{false};
    TestListener outer(library.queue, "A"), inner(library.queue, "B");
    inner.onMessage = [&](pelmoMsg*) {
        EXPECT_EQ(pelmoEvent_DestroyWait(outer.event), kStatusNotPermitted);
    };
    outer.onMessage = [&](pelmoMsg*) {
        EXPECT_EQ(pelmoEvent_DestroyWait(outer.event), kStatusNotPermitted);
        EXPECT_EQ(sendText(kLocal, "B"), kStatusSuccess);
        EXPECT_EQ(library.dispatch(0), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_DestroyEx(outer.event, nullptr), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_DestroyWait(outer.event), kStatusNotPermitted);
        gone = true;
        while (!asks)
            std::this_thread::yield();
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        over = true;
    };
    std::thread late([&] {
        while (!gone)
            std::this_thread::yield();
        asks = true;
        EXPECT_EQ(pelmoEvent_DestroyWait(outer.event), kStatusInvalidEvent);
        EXPECT_TRUE(over);
    });
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
    EXPECT_EQ(library.dispatch(0), kStatusSuccess);
    late.join();
    EXPECT_EQ(inner.texts.size(), 1u);
    EXPECT_EQ(pelmoEvent_DestroyWait(inner.event), kStatusSuccess);
}

TEST(Completions, RunAfterTheCloseWhereACallbackWasRunning) {
    static int ended;
    ended = 0;
    const auto onEnd = [](uint32_t, void*) { ++ended; };
    OpenLibrary library;
    TestListener listener(library.queue, "A");
    listener.onMessage = [&](pelmoMsg* msg) {
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        void* closure = nullptr;
        EXPECT_EQ(pelmoMsg_GetClosure(msg, &closure), kStatusSuccess);
        EXPECT_EQ(closure, &listener);
        uint32_t event = kNoId, kind = 0;
        EXPECT_EQ(pelmoMsg_GetEvent(msg, &event), kStatusSuccess);
        EXPECT_EQ(event, listener.event);
        EXPECT_EQ(pelmoEvent_GetType(event, &kind), kStatusNotInitialized);
        EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusNotPermitted);
        EXPECT_EQ(pelmoEvent_DestroyEx(event, onEnd), kStatusSuccess);
        EXPECT_EQ(ended, 0);
    };
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
    EXPECT_EQ(library.dispatch(0), kStatusSuccess);
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(pelmoEvent_DestroyEx(listener.event, onEnd), kStatusInvalidEvent);
}

std::atomic<uint32_t> wokenBySignal;

void onSignal(int) {
    errno = 7;
    (void)pelmoQueue_Wake(wokenBySignal);
    if (errno != 7) std::abort();
}

// Each kind of wait: before the wake and during it, by a call and from a signal handler.
TEST(Wake, EndsEveryKindOfWait) {
    const OpenLibrary library;
    uint32_t group = kNoId, polled = kNoId;
    ASSERT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
    ASSERT_EQ(pelmoQueueGroup_Add(group, library.queue), kStatusSuccess);
    ASSERT_EQ(pelmoQueue_CreateSynchronous(&polled), kStatusSuccess);
    pelmoMsg* msg = nullptr;
    const struct {
        uint32_t id;
        std::function<pelmoStatus(double)> wait;
        pelmoStatus (*wake)(uint32_t);
    } waits[] = {
        {library.queue, [&](double s) { return pelmoQueue_TimedDispatch(library.queue, s); },
         pelmoQueue_Wake},
        {group, [&](double s) { return pelmoQueueGroup_TimedDispatch(group, s); },
         pelmoQueueGroup_Wake},
        {polled, [&](double s) { return pelmoQueue_Poll(polled, &msg, s); }, pelmoQueue_Wake},
    };
    std::signal(SIGUSR1, onSignal);
    for (const auto& [id, wait, wake] : waits) {
        EXPECT_EQ(wake(id), kStatusSuccess);
        EXPECT_EQ(wait(-1), kStatusInterrupted) << "before";
        EXPECT_EQ(wait(0), kStatusTimeout);
        // Both threads of a broadcast, however far they have come when it is. The IO thread's own
        // wait, which would find a lost wake, is of ten seconds.
        std::atomic<int> ended{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([&wait = wait, &ended] {
                EXPECT_EQ(wait(5), kStatusInterrupted);
                ++ended;
            });
        }
        while (ended != 2) {
            EXPECT_EQ(wake(id), kStatusSuccess);
            std::this_thread::yield();
        }
        for (std::thread& thread : threads)
            thread.join();
        while (wait(0.05) == kStatusInterrupted) {
        }
        wokenBySignal = id;
        std::raise(SIGUSR1);
        EXPECT_EQ(wait(-1), kStatusInterrupted) << "by a signal";
    }
    // More ids at once than there is room for, and one of no object: all are woken.
    for (uint32_t id = 1'000'000; id < 1'000'100; ++id)
        EXPECT_EQ(pelmoQueue_Wake(id), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_Wake(library.queue), kStatusSuccess);
    EXPECT_EQ(library.dispatch(), kStatusInterrupted);
}

// Entries come first, and a dispatcher isn't ended by a wake.
TEST(Wake, LeavesEntriesAndDispatchers) {
    const OpenLibrary library;
    const TestListener listener(library.queue, "A");
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_Wake(library.queue), kStatusSuccess);
    EXPECT_EQ(library.dispatch(), kStatusSuccess);
    EXPECT_EQ(listener.count, 1u);
    uint32_t dispatcher = kNoId;
    ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, library.queue, -1), kStatusSuccess);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(pelmoQueue_Wake(library.queue), kStatusSuccess);
    EXPECT_EQ(sendText(kLocal, "A"), kStatusSuccess);
    EXPECT_TRUE(listener.await(2));
    EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
}

// Requests to a server that answers each of them twice.
struct Requests : OpenLibrary {
    Requests() {
        server.onMessage = [](pelmoMsg* asked) {
            const Message reply = messageOn(nullptr, "answer");
            for (int i = 0; i < 2; ++i)
                EXPECT_EQ(pelmoTransport_SendReply(kLocal, reply.get(), asked), kStatusSuccess);
        };
    }

    pelmoStatus ask(const char* subject, double seconds, uint32_t transport = kLocal) {
        const auto onReply = [](uint32_t event, pelmoMsg* reply, void* closure) {
            auto* const self = static_cast<Requests*>(closure);
            self->answers.push_back(reply != nullptr ? textOf(reply) : "none");
            self->last = event;
            dispatchAll(self->queue);  // a second reply is dropped within the callback too
            EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusNotPermitted);
        };
        return pelmoTransport_SendRequestAsync(&request, transport, queue, messageOn(subject).get(),
                                               onReply, seconds, this);
    }

    // Until so many answers are there.
    void run(size_t wanted) {
        while (answers.size() < wanted)
            ASSERT_EQ(dispatch(), kStatusSuccess);
    }

    TestListener server{queue, "ECHO"};
    Texts answers;
    uint32_t request = kNoId, last = kNoId;
};

TEST(AsyncRequest, GivesTheFirstReplyOrNoneInTimeUnlessItIsDestroyed) {
    Requests of;
    const size_t objects = objectCount();
    EXPECT_EQ(of.ask("ECHO", kLong), kStatusSuccess);
    of.run(1);
    EXPECT_EQ(of.last, of.request);
    EXPECT_EQ(objectCount(), objects);
    for (const double limit : {0.0, 0.01}) {
        EXPECT_EQ(of.ask("NONE", limit), kStatusSuccess);
        of.run(of.answers.size() + 1);
    }
    EXPECT_EQ(of.ask("ECHO", -1), kStatusSuccess);
    of.run(4);
    EXPECT_EQ(pelmoEvent_DestroyEx(of.request, nullptr), kStatusInvalidEvent);
    dispatchAll(of.queue);  // a second reply is dropped
    EXPECT_EQ(of.ask("NONE", 0.01), kStatusSuccess);
    EXPECT_EQ(pelmoEvent_DestroyWait(of.request), kStatusSuccess);
    EXPECT_EQ(objectCount(), objects);
    EXPECT_EQ(of.dispatch(0.05), kStatusTimeout);
    of.request = 0;
    EXPECT_EQ(of.ask("_PM.A", kLong), kStatusInvalidSubject);
    EXPECT_EQ(of.ask("A", std::nan("")), kStatusInvalidInterval);
    EXPECT_EQ(of.request, 0u);
    EXPECT_EQ(of.answers, (Texts{"answer", "none", "none", "answer"}));
}

// A queue at its limit drops messages, but not the end of a request; nor does a transport's end.
TEST(AsyncRequest, IsEndedWhateverBecomesOfQueueAndTransport) {
    Requests of;
    const TestListener fill(of.queue, "FILL");
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(of.queue, kLimitDiscardNew, 1, 1), kStatusSuccess);
    EXPECT_EQ(of.ask("NONE", 0.01), kStatusSuccess);
    EXPECT_EQ(sendText(kLocal, "FILL"), kStatusSuccess);
    of.run(1);
    uint32_t circuit = kNoId, other = kNoId;
    const char* subject = nullptr;
    ASSERT_EQ(vcCreateAccept(&circuit, &subject, kLocal), kStatusSuccess);
    ASSERT_EQ(vcCreateConnect(&other, subject, kLocal), kStatusSuccess);
    ASSERT_EQ(vcWaitForConnection(circuit, kLong), kStatusSuccess);
    EXPECT_EQ(of.ask("NONE", -1, circuit), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
    of.run(2);
    EXPECT_EQ(of.answers, (Texts{"none", "none"}));
}

// The pace of the lines is the log's; the hook gets each line in one piece, for as long as it is
// set.
TEST(LogHook, GetsEachLineThatIsDue) {
    Texts lines;
    pelmo_SetLogHook(
        [](const char* line, void* to) { static_cast<Texts*>(to)->emplace_back(line); }, &lines);
    {
        const OpenLibrary library;
        for (int i = 0; i < 500; ++i)
            (void)pelmoTransport_SendAdvisory(kLocal, "WARN", "TEST", "ONE", nullptr);
    }
    pelmo_SetLogHook(nullptr, nullptr);
    ASSERT_TRUE(!lines.empty() && lines.size() < 100) << lines.size();
    EXPECT_TRUE(lines[0].starts_with("Pelmo Error Not Handled by Process:\n{ADV_CLASS="));
}

using Add = pelmoStatus (*)(pelmoMsg* msg);
#define ADD(word, value) [](pelmoMsg* msg) { return pelmoMsg_Add##word(msg, "a", value, 0); }

template <typename Value>
std::string readExactly(pelmoStatus (*get)(const pelmoMsg*, const char*, Value*, uint16_t),
                        const pelmoMsg* msg) {
    Value value{};
    const pelmoStatus status = get(msg, "a", &value, 0);
    if (status == kStatusConversionFailed) return "-";
    EXPECT_EQ(status, kStatusSuccess);
    char text[64];
    (void)std::snprintf(text, sizeof text, "%.9g", static_cast<double>(value));
    return text;
}

template <typename... Getter>
std::string readAsEach(const pelmoMsg* msg, Getter... getter) {
    return ((readExactly(getter, msg) + " ") + ...);
}

// For each value the types that hold it, and what they read; "-" where it doesn't fit.
TEST(ExactReads, RefuseWhatDoesntFit) {
    const struct {
        const char* name;
        Add add;
        const char* expected;  // as Bool, I8, U8, I16, U32, I64, U64, F32, F64
    } rows[] = {
        {"1", ADD(U64, 1), "1 1 1 1 1 1 1 1 1"},
        {"-128", ADD(I64, -128), "- -128 - -128 - -128 - -128 -128"},
        {"-129", ADD(F32, -129), "- - - -129 - -129 - -129 -129"},
        {"255", ADD(F64, 255), "- - 255 255 255 255 255 255 255"},
        {"1.5", ADD(F64, 1.5), "- - - - - - - 1.5 1.5"},
        {"0.1", ADD(F64, 0.1), "- - - - - - - - 0.1"},
        {"2^24+1", ADD(U32, 16777217), "- - - - 16777217 16777217 16777217 - 16777217"},
        {"2^53+1", ADD(I64, 9007199254740993), "- - - - - 9.00719925e+15 9.00719925e+15 - -"},
        {"-2^63", ADD(F64, -0x1p63), "- - - - - -9.22337204e+18 - -9.22337204e+18 -9.22337204e+18"},
        {"2^63", ADD(U64, 1ull << 63), "- - - - - - 9.22337204e+18 9.22337204e+18 9.22337204e+18"},
        {"2^64", ADD(F64, 0x1p64), "- - - - - - - 1.84467441e+19 1.84467441e+19"},
        {"1e300", ADD(F64, 1e300), "- - - - - - - - 1e+300"},
        {"infinite", ADD(F64, std::numeric_limits<double>::infinity()), "- - - - - - - inf inf"},
        {"nan", ADD(F32, std::numeric_limits<float>::quiet_NaN()), "- - - - - - - nan nan"},
        {"another's 2", ADD(Bool, 2), "1 1 1 1 1 1 1 1 1"},
        {"text", ADD(String, "-7"), "- -7 - -7 - -7 - -7 -7"},
        {"a text's fraction", ADD(String, "2.50"), "- - - - - - - 2.5 2.5"},
        {"more than a number", ADD(String, "7 apples"), "- - - - - - - - -"},
        {"no text", ADD(String, ""), "- - - - - - - - -"},
        {"a port", ADD(IPPort16, 7), "- - - - - - - - -"},
        {"nothing", [](pelmoMsg* msg) { return pelmoMsg_AddNone(msg, "a", 0); },
         "- - - - - - - - -"},
    };
    for (const auto& [name, add, expected] : rows) {
        const Message made = newMessage();
        pelmoMsg* const msg = made.get();
        ASSERT_EQ(add(msg), kStatusSuccess) << name;
        EXPECT_EQ(readAsEach(msg, pelmoMsg_GetBoolExact, pelmoMsg_GetI8Exact, pelmoMsg_GetU8Exact,
                             pelmoMsg_GetI16Exact, pelmoMsg_GetU32Exact, pelmoMsg_GetI64Exact,
                             pelmoMsg_GetU64Exact, pelmoMsg_GetF32Exact, pelmoMsg_GetF64Exact),
                  std::string(expected) + " ")
            << name;
    }
}

// Long texts with any bytes, and what a length makes wrong; pelmo.hpp's tests hold the rest.
TEST(TextWithLength, ArrivesWhole) {
    const std::string text = std::string(70'000, 'y') + '\0' + "z";
    const Message made = newMessage();
    pelmoMsg* const msg = made.get();
    pelmoMsg* copy = nullptr;
    const char* read = nullptr;
    const void* bytes = nullptr;
    size_t length = 0;
    ASSERT_EQ(pelmoMsg_AddStringN(msg, "a", text.data(), text.size(), 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_GetStringN(msg, "a", &read, &length, 0), kStatusSuccess);
    EXPECT_EQ(std::string(read, length + 1), text + '\0');
    ASSERT_EQ(pelmoMsg_GetAsBytesN(msg, &bytes, &length), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_CreateFromBytesN(&copy, bytes, length - 1), kStatusCorruptMessage);
    EXPECT_EQ(pelmoMsg_AddStringN(msg, "b", nullptr, 1, 0), kStatusInvalidArgument);
    for (const auto set : {pelmoMsg_SetSendSubjectN, pelmoMsg_SetReplySubjectN}) {
        EXPECT_EQ(set(msg, "A.BC", 3), kStatusSuccess);
        EXPECT_EQ(set(msg, "A\0B", 3), kStatusInvalidSubject);
        EXPECT_EQ(set(msg, std::string(400, 'x').c_str(), 400), kStatusInvalidSubject);
    }
    for (const auto get : {pelmoMsg_GetSendSubjectN, pelmoMsg_GetReplySubjectN}) {
        EXPECT_EQ(get(msg, &read, &length), kStatusSuccess);
        EXPECT_EQ(std::string_view(read, length), "A.B");
    }
}

}  // namespace
