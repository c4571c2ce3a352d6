// The call log: what the settings switch on, the lines of calls, and the filters of messages.

#include "lib/runtime/tracing.h"

#include "lib/base/log.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/local_bus.h"
#include "tests/support/scratch_folder.h"

namespace {

using Lines = std::vector<std::string>;

// Tracing that a test starts ends with it, and the log is as before.
void endTracing() {
    Tracing_Stop();
    Tracing_Clear();
    logSetStream(stderr);
    logSetUtcStamp(false);
}

// Lines without stamp, program and thread: "[QUEUE] pelmoQueue_Create(1001)".
Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        const size_t stamp = line.find("Z "), thread = line.find("][");
        if (thread != line.npos) line.erase(thread + 1, line.find(": ", thread) - thread);
        if (stamp != line.npos) line.erase(0, line.find(": ", stamp) + 2);
        lines.push_back(line);
    }
    return lines;
}

struct Tracing : testing::Test {
    ~Tracing() override { endTracing(); }

    void start(const char* modules, const char* banner = nullptr) const {
        ASSERT_EQ(Tracing_Start(modules, file.c_str(), banner), kStatusSuccess);
    }

    // What was written since the start, which this ends.
    Lines written() const {
        Tracing_Stop();
        return linesOf(readFile(file));
    }

    Folder folder;
    const std::string file = folder.path("trace");
};

TEST_F(Tracing, ReadsItsSettings) {
    const struct {
        const char* modules;
        pelmoStatus status;
        const char* on;
    } cases[] = {
        {nullptr, kStatusSuccess, ""},
        {"EVENTS,QUEUE", kStatusSuccess, "5 8 "},
        {"Q", kStatusSuccess, "8 "},
        {"M,QG,D,DQ_,DI", kStatusSuccess, "0 1 6 9 11 "},
        {"MSG_", kStatusSuccess, "7 "},
        {"EVENTS,,QUEUE", kStatusInvalidArgument, "5 "},
        {"EVENTS,", kStatusInvalidArgument, "5 "},
        {"TPORT,NOSUCH,FT", kStatusNotFound, "10 "},
        {"queue", kStatusNotFound, ""},
        {"RECV=A.>,RECV=*.B,CM", kStatusSuccess, "3 12 "},
        {"RECV=A..B,CM", kStatusInvalidSubject, "3 "},
        {"RECV=", kStatusInvalidSubject, "3 "},
        {"PELMO=A=B", kStatusSuccess, "4 "},
    };
    for (const auto& [modules, status, on] : cases) {
        SCOPED_TRACE(modules != nullptr ? modules : "null");
        EXPECT_EQ(Tracing_Start(modules, nullptr, nullptr), status);
        std::string found;
        for (uint32_t module = 0; module < kTraceModules; ++module)
            found += traceOps.enabled[module] != 0 ? std::to_string(module) + " " : "";
        EXPECT_EQ(found, on);
        EXPECT_EQ(traceOps.on, status == kStatusSuccess && *on != '\0' ? 1U : 0U);
        endTracing();
    }
    // Where the log goes: null for the file.
    const std::pair<std::string, FILE*> files[] = {
        {"STDOUT", stdout}, {file, nullptr}, {"", stderr}, {folder.path("none/trace"), stderr}};
    for (const auto& [name, stream] : files) {
        const bool isRefused = name == files[3].first;
        EXPECT_EQ(Tracing_Start("QUEUE", name.c_str(), nullptr),
                  isRefused ? kStatusInvalidArgument : kStatusSuccess);
        EXPECT_EQ(traceOps.on, isRefused ? 0U : 1U);
        FILE* const now = logStreamGet();
        EXPECT_TRUE(now == stream || (stream == nullptr && now != stderr && now != stdout)) << name;
        endTracing();
        EXPECT_EQ(traceOps.enabled[8], 0);
    }
    // No modules: the file is left alone.
    EXPECT_EQ(Tracing_Start("", folder.path("unused").c_str(), "banner"), kStatusSuccess);
    EXPECT_EQ(folder.names(), std::set<std::string>{"trace"});
}

// Creating calls after their success, with the new id first, all others before what they do.
TEST_F(Tracing, WritesALineForEachCall) {
    const EventStand stand;
    start("QUEUE,DISP,EVENTS", "\nPelmo API");
    uint32_t queue = 0, group = 0;
    EXPECT_EQ(pelmoQueue_Create(nullptr), kStatusInvalidArgument);  // no line
    EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);  // off
    EXPECT_EQ(pelmoQueue_SetName(0, nullptr), kStatusInvalidQueue);
    EXPECT_EQ(pelmoQueue_TimedDispatchSingle(queue, 0.0005), kStatusTimeout);
    EXPECT_EQ(pelmoEvent_CreateTimer(&group, 1, nullptr, 1, nullptr), kStatusInvalidCallback);
    const uint32_t timer = stand.timer(2.0, ignoreEvent, reinterpret_cast<void*>(7));
    EXPECT_EQ(pelmoEvent_GetType(4'711, nullptr), kStatusInvalidEvent);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);

    const std::string q = std::to_string(queue);
    std::ostringstream callback;
    callback << reinterpret_cast<void*>(ignoreEvent);
    const Lines expected = {
        "",
        "Pelmo API",
        "[QUEUE] pelmoQueue_Create(" + q + ")",
        "[QUEUE] pelmoQueue_SetName(0, \"<NULL>\")",
        "[DISP] pelmoQueue_TimedDispatch(" + q + ", 0.000500)",
        // 2.0 shows by its bits.
        "[EVENTS] pelmoEvent_CreateTimer(" + std::to_string(timer) + ", " +
            std::to_string(stand.queue) + ", " + callback.str() + ", 0x4000000000000000, 0x7)",
        "[EVENTS] pelmoEvent_GetType(4711, (nil))",
        "[QUEUE] pelmoQueue_DestroyEx(" + q + ", (nil), (nil))",
    };
    EXPECT_EQ(written(), expected);
}

TEST_F(Tracing, FiltersMessagesBySubject) {
    start("RECV=A.>,RECV=B.>,TPORT");
    for (const char* subject : {"A.x", "B", "B.y.z", "C.x"}) {
        const Message message = messageOn(subject);
        EXPECT_EQ(Trace_Message(kTraceReceive, message.get(), "got %d", 5), kStatusSuccess);
        EXPECT_EQ(msgCloseEnvelope(message.get()), kStatusSuccess);  // the subject is a field then
        traceMessage(kTraceReceive, message.get(), "closed");
    }
    traceLine(kTraceReceive, "no message");  // filters are for messages
    const Message message = messageOn("Q");
    traceMessage(kTraceTransport, message.get(), "%s", "sent");
    traceMessage(kTraceEvents, message.get(), "off");
    // Nor does a line come of what is no message with a subject.
    const Message odd = newMessage();
    EXPECT_EQ(Trace_Message(kTraceReceive, nullptr, "x"), kStatusInvalidMessage);
    EXPECT_EQ(pelmoMsg_AddString(odd.get(), "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(Trace_Message(kTraceReceive, odd.get(), "x"), kStatusInvalidSubject);
    EXPECT_EQ(Trace_Message(kTraceEvents, nullptr, "x"), kStatusSuccess);  // off
    const Lines expected = {
        "[RECV] got 5: (A.x) {text=\"text\"}",
        "[RECV] closed: (A.x) {sub=[A.x] mtype=\"D\" data={text=\"text\"}}",
        "[RECV] got 5: (B.y.z) {text=\"text\"}",
        "[RECV] closed: (B.y.z) {sub=[B.y.z] mtype=\"D\" data={text=\"text\"}}",
        "[RECV] no message",
        "[TPORT] sent: (Q) {text=\"text\"}",
    };
    EXPECT_EQ(written(), expected);
}

}  // namespace
