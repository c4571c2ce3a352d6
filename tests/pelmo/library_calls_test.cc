// What the public calls promise wrappers and event loops: ends that can be waited for, waits that
// can be ended, requests that call back, and values that don't change on their way.

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lib/pelmo.h"
#include "lib/runtime/id.h"
#include "tests/support/test.h"

namespace {

constexpr uint32_t kLocal = kIntraProcessTransportId;
constexpr double kLong = 60;

// A callback that does what the test says.
struct Callback {
    std::function<void(uint32_t event, pelmoMsg* msg)> run;

    static void call(uint32_t event, pelmoMsg* msg, void* closure) {
        static_cast<Callback*>(closure)->run(event, msg);
    }
};

struct OpenLibrary : NoCopy {
    OpenLibrary() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    }
    ~OpenLibrary() { pelmo_Close(); }

    uint32_t listen(const char* subject, Callback& callback) const {
        uint32_t event = kNoId;
        EXPECT_EQ(
            pelmoEvent_CreateListener(&event, queue, Callback::call, kLocal, subject, &callback),
            kStatusSuccess);
        return event;
    }

    uint32_t queue = kNoId;
};

void sendTo(const char* subject, const char* text = "") {
    pelmoMsg* msg = nullptr;
    ASSERT_EQ(pelmoMsg_Create(&msg), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_SetSendSubject(msg, subject), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddString(msg, "text", text, 0), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Send(kLocal, msg), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusSuccess);
}

struct Ended {
    std::atomic<int> times{0};
};

TEST(DestroyWait, ReturnsAfterTheCallbackThatAnotherThreadRuns) {
    const OpenLibrary library;
    std::atomic<bool> inside{false};
    std::atomic<bool> over{false};
    Callback callback;
    callback.run = [&](uint32_t, pelmoMsg*) {
        inside = true;
        inside.notify_all();
        while (!over)
            std::this_thread::yield();
    };
    const uint32_t event = library.listen("A", callback);
    sendTo("A");
    std::thread dispatching(
        [&] { EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, kLong), kStatusSuccess); });
    inside.wait(false);
    std::atomic<bool> returned{false};
    std::thread destroying([&] {
        EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusSuccess);
        EXPECT_TRUE(over);
        returned = true;
    });
    uint32_t kind = 0;
    while (pelmoEvent_GetType(event, &kind) == kStatusSuccess)
        std::this_thread::yield();
    EXPECT_FALSE(returned);
    over = true;
    dispatching.join();
    destroying.join();
    EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusInvalidEvent);
}

// Within the callback, also where it dispatches on and another callback asks.
TEST(DestroyWait, RefusesWithinTheCallbackAndLeavesTheEvent) {
    const OpenLibrary library;
    uint32_t outer = kNoId;
    std::vector<pelmoStatus> statuses;
    Callback inner;
    inner.run = [&](uint32_t, pelmoMsg*) { statuses.push_back(pelmoEvent_DestroyWait(outer)); };
    Callback callback;
    callback.run = [&](uint32_t event, pelmoMsg*) {
        statuses.push_back(pelmoEvent_DestroyWait(event));
        sendTo("B");
        EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, 0), kStatusSuccess);
    };
    outer = library.listen("A", callback);
    const uint32_t other = library.listen("B", inner);
    sendTo("A");
    EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, 0), kStatusSuccess);
    EXPECT_EQ(statuses, (std::vector{kStatusNotPermitted + 0, kStatusNotPermitted + 0}));
    EXPECT_EQ(pelmoEvent_DestroyWait(outer), kStatusSuccess);
    EXPECT_EQ(pelmoEvent_DestroyWait(other), kStatusSuccess);
}

TEST(Completions, RunAfterTheCloseWhereACallbackWasRunning) {
    Ended ended;
    static Ended* sink;
    sink = &ended;
    const auto onEnd = [](uint32_t, void*) { ++sink->times; };
    OpenLibrary library;
    Callback callback;
    callback.run = [&](uint32_t event, pelmoMsg* msg) {
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        void* closure = nullptr;
        EXPECT_EQ(pelmoMsg_GetClosure(msg, &closure), kStatusSuccess);
        EXPECT_EQ(closure, &callback);
        EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusNotPermitted);
        EXPECT_EQ(pelmoEvent_DestroyEx(event, onEnd), kStatusSuccess);
        EXPECT_EQ(ended.times, 0);
    };
    const uint32_t event = library.listen("A", callback);
    sendTo("A");
    EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, 0), kStatusSuccess);
    EXPECT_EQ(ended.times, 1);
    EXPECT_EQ(pelmoEvent_DestroyEx(event, onEnd), kStatusInvalidEvent);
}

TEST(VectorListener, KnowsEachMessagesListenerAndClosure) {
    const OpenLibrary library;
    static std::vector<std::pair<uint32_t, void*>> got;
    got.clear();
    const auto onBatch = [](pelmoMsg** messages, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            got.emplace_back();
            EXPECT_EQ(pelmoMsg_GetEvent(messages[i], &got.back().first), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_GetClosure(messages[i], &got.back().second), kStatusSuccess);
        }
    };
    int closures[2];
    uint32_t events[2];
    const char* const subjects[] = {"A", "B"};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(pelmoEvent_CreateVectorListener(&events[i], library.queue, onBatch, kLocal,
                                                  subjects[i], &closures[i]),
                  kStatusSuccess);
    }
    sendTo("B");
    sendTo("A");
    EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, 0), kStatusSuccess);
    EXPECT_EQ(got, (std::vector<std::pair<uint32_t, void*>>{{events[1], &closures[1]},
                                                            {events[0], &closures[0]}}));
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
    uint32_t group = kNoId;
    uint32_t polled = kNoId;
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
    ASSERT_NE(std::signal(SIGUSR1, onSignal), SIG_ERR);
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
        ASSERT_EQ(std::raise(SIGUSR1), 0);
        EXPECT_EQ(wait(-1), kStatusInterrupted) << "by a signal";
    }
    // More ids at once than there is room for, and one of no object: all are woken.
    for (uint32_t id = 1'000'000; id < 1'000'100; ++id)
        EXPECT_EQ(pelmoQueue_Wake(id), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_Wake(library.queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, kLong), kStatusInterrupted);
}

// Entries come first, and a dispatcher isn't ended by a wake.
TEST(Wake, LeavesEntriesAndDispatchers) {
    const OpenLibrary library;
    std::atomic<int> calls{0};
    Callback callback;
    callback.run = [&](uint32_t, pelmoMsg*) {
        ++calls;
        calls.notify_all();
    };
    (void)library.listen("A", callback);
    sendTo("A");
    EXPECT_EQ(pelmoQueue_Wake(library.queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, kLong), kStatusSuccess);
    EXPECT_EQ(calls, 1);
    uint32_t dispatcher = kNoId;
    ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, library.queue, -1), kStatusSuccess);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(pelmoQueue_Wake(library.queue), kStatusSuccess);
    sendTo("A");
    calls.wait(1);
    EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
}

// Whatever poll can wait for; a reader learns of the end of its pipe.
TEST(IoEvents, WatchWhatPollCanWaitFor) {
    const OpenLibrary library;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int counter = eventfd(0, 0);
    FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    int fired = -1;
    const auto watch = [&](int source, uint32_t condition, Callback& callback, uint32_t* event) {
        return pelmoEvent_CreateIO(event, library.queue, Callback::call, source, condition,
                                   &callback);
    };
    uint32_t event = kNoId;
    Callback callback;
    for (const int wrong : {fileno(file), 1'000'000, -1})
        EXPECT_EQ(watch(wrong, kIoRead, callback, &event), kStatusInvalidIoSource) << wrong;
    const struct {
        int source;
        std::function<void()> make;
    } cases[] = {
        {counter, [&] { EXPECT_EQ(eventfd_write(counter, 1), 0); }},
        {ends[0], [&] { EXPECT_EQ(write(ends[1], "x", 1), 1); }},
        {ends[0], [&] { close(ends[1]); }},
    };
    for (const auto& [source, make] : cases) {
        callback.run = [&, source = source](uint32_t, pelmoMsg*) {
            char bytes[8];
            fired = static_cast<int>(read(source, bytes, sizeof bytes));
        };
        ASSERT_EQ(watch(source, kIoRead, callback, &event), kStatusSuccess);
        make();
        EXPECT_EQ(pelmoQueue_TimedDispatch(library.queue, kLong), kStatusSuccess);
        EXPECT_EQ(fired, source == counter ? 8 : &make == &cases[1].make ? 1 : 0);
        EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusSuccess);
    }
    close(ends[0]);
    close(counter);
    std::fclose(file);
}

struct Requests : OpenLibrary {
    Requests() {
        server.run = [](uint32_t, pelmoMsg* asked) {
            pelmoMsg* reply = nullptr;
            ASSERT_EQ(pelmoMsg_CreateCopy(asked, &reply), kStatusSuccess);
            for (int i = 0; i < 2; ++i)
                EXPECT_EQ(pelmoTransport_SendReply(kLocal, reply, asked), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_Destroy(reply), kStatusSuccess);
        };
        client.run = [this](uint32_t event, pelmoMsg* reply) {
            const char* text = nullptr;
            if (reply != nullptr) {
                EXPECT_EQ(pelmoMsg_GetString(reply, "text", &text, 0), kStatusSuccess);
            }
            answers.emplace_back(text != nullptr ? text : "none");
            last = event;
            EXPECT_EQ(pelmoEvent_DestroyWait(event), kStatusNotPermitted);
        };
    }

    pelmoStatus ask(const char* subject, double seconds, uint32_t transport = kLocal) {
        pelmoMsg* msg = nullptr;
        EXPECT_EQ(pelmoMsg_Create(&msg), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetSendSubject(msg, subject), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_AddString(msg, "text", "hello", 0), kStatusSuccess);
        const pelmoStatus status = pelmoTransport_SendRequestAsync(
            &request, transport, queue, msg, Callback::call, seconds, &client);
        EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusSuccess);
        return status;
    }

    // Until so many answers are there.
    void run(size_t wanted) {
        while (answers.size() < wanted)
            ASSERT_EQ(pelmoQueue_TimedDispatch(queue, kLong), kStatusSuccess);
    }

    std::vector<uint32_t> timers() const {
        std::vector<uint32_t> found;
        uint32_t kind = 0;
        for (uint32_t id = request; id < request + 4; ++id)
            if (pelmoEvent_GetType(id, &kind) == kStatusSuccess) found.push_back(id);
        return found;
    }

    Callback server, client;
    std::vector<std::string> answers;
    uint32_t request = kNoId;
    uint32_t last = kNoId;
};

TEST(AsyncRequest, GivesTheFirstReplyOrNoneInTime) {
    Requests of;
    (void)of.listen("ECHO", of.server);
    EXPECT_EQ(of.ask("ECHO", kLong), kStatusSuccess);
    of.run(1);
    EXPECT_EQ(of.last, of.request);
    EXPECT_EQ(of.timers(), std::vector<uint32_t>{}) << "listener or timer stays";
    for (const double limit : {0.0, 0.01}) {
        EXPECT_EQ(of.ask("NONE", limit), kStatusSuccess);
        of.run(of.answers.size() + 1);
    }
    EXPECT_EQ(of.ask("ECHO", -1), kStatusSuccess);
    of.run(4);
    EXPECT_EQ(of.answers, (std::vector<std::string>{"hello", "none", "none", "hello"}));
    EXPECT_EQ(pelmoEvent_DestroyEx(of.request, nullptr), kStatusInvalidEvent);
    while (pelmoQueue_TimedDispatch(of.queue, 0) == kStatusSuccess) {
    }
    EXPECT_EQ(of.answers.size(), 4u) << "a second reply is dropped";
}

TEST(AsyncRequest, IsCancelledByItsDestroyAndRefusesWhatCantBeSent) {
    Requests of;
    EXPECT_EQ(of.ask("NONE", 0.01), kStatusSuccess);
    EXPECT_EQ(pelmoEvent_DestroyWait(of.request), kStatusSuccess);
    EXPECT_EQ(of.timers(), std::vector<uint32_t>{});
    EXPECT_EQ(pelmoQueue_TimedDispatch(of.queue, 0.05), kStatusTimeout);
    of.request = 0;
    EXPECT_EQ(of.ask("_PM.A", kLong), kStatusInvalidSubject);
    EXPECT_EQ(of.ask("A", std::nan("")), kStatusInvalidInterval);
    EXPECT_EQ(of.request, 0u);
    EXPECT_TRUE(of.answers.empty());
}

// A queue at its limit drops messages, but not the end of a request; nor does a transport's end.
TEST(AsyncRequest, IsEndedWhateverBecomesOfQueueAndTransport) {
    Requests of;
    Callback nothing;
    nothing.run = [](uint32_t, pelmoMsg*) {};
    (void)of.listen("FILL", nothing);
    ASSERT_EQ(pelmoQueue_SetLimitPolicy(of.queue, kLimitDiscardNew, 1, 1), kStatusSuccess);
    EXPECT_EQ(of.ask("NONE", 0.01), kStatusSuccess);
    sendTo("FILL");
    of.run(1);
    uint32_t circuit = kNoId;
    const char* subject = nullptr;
    ASSERT_EQ(vcCreateAccept(&circuit, &subject, kLocal), kStatusSuccess);
    uint32_t other = kNoId;
    ASSERT_EQ(vcCreateConnect(&other, subject, kLocal), kStatusSuccess);
    ASSERT_EQ(vcWaitForConnection(circuit, kLong), kStatusSuccess);
    EXPECT_EQ(of.ask("NONE", -1, circuit), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
    of.run(2);
    EXPECT_EQ(of.answers, (std::vector<std::string>{"none", "none"}));
}

TEST(LogHook, GetsTheSameLineOnceWithACount) {
    static std::vector<std::string> lines;
    lines.clear();
    pelmo_SetLogHook(
        [](const char* line, void* closure) {
            static_cast<std::vector<std::string>*>(closure)->emplace_back(line);
        },
        &lines);
    {
        const OpenLibrary library;
        for (int i = 0; i < 500; ++i) {
            EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, "WARN", "TEST", "ONE", "first"),
                      kStatusSuccess);
        }
        EXPECT_EQ(pelmoTransport_SendAdvisory(kLocal, "WARN", "TEST", "TWO", nullptr),
                  kStatusSuccess);
    }
    pelmo_SetLogHook(nullptr, nullptr);
    uint64_t counted = 0;
    size_t ones = 0;
    for (const std::string& line : lines) {
        if (line.find("first") == std::string::npos) continue;
        ++ones;
        const size_t more = line.rfind(" (");
        counted += 1 + (more != std::string::npos ? std::stoul(line.substr(more + 2)) : 0);
    }
    EXPECT_LE(counted, 500u);
    EXPECT_LT(ones, 100u);
    EXPECT_NE(lines.back().find("TWO"), std::string::npos);
    EXPECT_EQ(lines.front().find("Pelmo Error Not Handled by Process:\n{ADV_CLASS="), 0u);
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
    (void)std::snprintf(text, sizeof text, "%.17g", static_cast<double>(value));
    return text;
}

// For each value the types that hold it, and what they read; "-" where it doesn't fit.
TEST(ExactReads, RefuseWhatDoesntFit) {
    const struct {
        const char* name;
        Add add;
        const char* expected;  // as Bool, I8, U8, I16, U32, I64, U64, F32, F64
    } rows[] = {
        {"0", ADD(I32, 0), "0 0 0 0 0 0 0 0 0"},
        {"1", ADD(U64, 1), "1 1 1 1 1 1 1 1 1"},
        {"-1", ADD(I8, -1), "- -1 - -1 - -1 - -1 -1"},
        {"-128", ADD(I64, -128), "- -128 - -128 - -128 - -128 -128"},
        {"255", ADD(F64, 255), "- - 255 255 255 255 255 255 255"},
        {"-129", ADD(F32, -129), "- - - -129 - -129 - -129 -129"},
        {"1.5", ADD(F64, 1.5), "- - - - - - - 1.5 1.5"},
        {"0.1", ADD(F64, 0.1), "- - - - - - - - 0.10000000000000001"},
        {"2^24+1", ADD(U32, 16777217), "- - - - 16777217 16777217 16777217 - 16777217"},
        {"2^53+1", ADD(I64, 9007199254740993), "- - - - - 9007199254740992 9007199254740992 - -"},
        {"-2^63", ADD(F64, -9223372036854775808.0),
         "- - - - - -9.2233720368547758e+18 - -9.2233720368547758e+18 -9.2233720368547758e+18"},
        {"2^63", ADD(U64, 1ull << 63),
         "- - - - - - 9.2233720368547758e+18 9.2233720368547758e+18 9.2233720368547758e+18"},
        {"2^64", ADD(F64, 18446744073709551616.0),
         "- - - - - - - 1.8446744073709552e+19 1.8446744073709552e+19"},
        {"1e300", ADD(F64, 1e300), "- - - - - - - - 1.0000000000000001e+300"},
        {"infinite", ADD(F64, std::numeric_limits<double>::infinity()), "- - - - - - - inf inf"},
        {"nan", ADD(F32, std::numeric_limits<float>::quiet_NaN()), "- - - - - - - nan nan"},
        {"true", ADD(Bool, 1), "1 1 1 1 1 1 1 1 1"},
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
        pelmoMsg* msg = nullptr;
        ASSERT_EQ(pelmoMsg_Create(&msg), kStatusSuccess);
        ASSERT_EQ(add(msg), kStatusSuccess) << name;
        std::string read = readExactly(pelmoMsg_GetBoolExact, msg);
        for (const std::string& next :
             {readExactly(pelmoMsg_GetI8Exact, msg), readExactly(pelmoMsg_GetU8Exact, msg),
              readExactly(pelmoMsg_GetI16Exact, msg), readExactly(pelmoMsg_GetU32Exact, msg),
              readExactly(pelmoMsg_GetI64Exact, msg), readExactly(pelmoMsg_GetU64Exact, msg),
              readExactly(pelmoMsg_GetF32Exact, msg), readExactly(pelmoMsg_GetF64Exact, msg)}) {
            read += " " + next;
        }
        EXPECT_EQ(read, expected) << name;
        EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusSuccess);
    }
}

// Texts of any bytes and length arrive as they were, and are text to those who ask for no length.
TEST(TextWithLength, ArrivesWhole) {
    const std::string texts[] = {"", "a", std::string("a\0b", 3), std::string(255, 'x'),
                                 std::string(70'000, 'y')};
    pelmoMsg* msg = nullptr;
    ASSERT_EQ(pelmoMsg_Create(&msg), kStatusSuccess);
    for (const std::string& text : texts) {
        for (const auto write : {pelmoMsg_AddStringN, pelmoMsg_UpdateStringN}) {
            ASSERT_EQ(pelmoMsg_Reset(msg), kStatusSuccess);
            ASSERT_EQ(write(msg, "a", text.data(), text.size(), 0), kStatusSuccess);
            const char* read = nullptr;
            size_t length = 0;
            ASSERT_EQ(pelmoMsg_GetStringN(msg, "a", &read, &length, 0), kStatusSuccess);
            EXPECT_EQ(std::string_view(read, length), text);
            EXPECT_EQ(read[length], '\0');
            const char* plain = nullptr;
            ASSERT_EQ(pelmoMsg_GetString(msg, "a", &plain, 0), kStatusSuccess);
            EXPECT_STREQ(plain, text.c_str());
        }
        const char* shown = nullptr;
        const void* bytes = nullptr;
        size_t length = 0;
        ASSERT_EQ(pelmoMsg_ConvertToStringN(msg, &shown, &length), kStatusSuccess);
        EXPECT_EQ(length, std::string_view(shown).size());
        ASSERT_EQ(pelmoMsg_GetAsBytesN(msg, &bytes, &length), kStatusSuccess);
        pelmoMsg* copy = nullptr;
        EXPECT_EQ(pelmoMsg_CreateFromBytesN(&copy, bytes, length - 1), kStatusCorruptMessage);
        ASSERT_EQ(pelmoMsg_CreateFromBytesN(&copy, bytes, length), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_Destroy(copy), kStatusSuccess);
    }
    EXPECT_EQ(pelmoMsg_AddStringN(msg, "b", nullptr, 1, 0), kStatusInvalidArgument);
    for (const auto set : {pelmoMsg_SetSendSubjectN, pelmoMsg_SetReplySubjectN}) {
        EXPECT_EQ(set(msg, "A.BC", 3), kStatusSuccess);
        EXPECT_EQ(set(msg, "A\0B", 3), kStatusInvalidSubject);
        EXPECT_EQ(set(msg, std::string(400, 'x').c_str(), 400), kStatusInvalidSubject);
    }
    for (const auto get : {pelmoMsg_GetSendSubjectN, pelmoMsg_GetReplySubjectN}) {
        const char* subject = nullptr;
        size_t length = 0;
        EXPECT_EQ(get(msg, &subject, &length), kStatusSuccess);
        EXPECT_EQ(std::string_view(subject, length), "A.B");
    }
    EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusSuccess);
}

}  // namespace
