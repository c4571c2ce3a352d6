// The call log: what the settings switch on, the lines of calls, and the filters of messages.

#include "lib/runtime/tracing.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "lib/base/log.h"
#include "lib/msg/envelope.h"
#include "lib/runtime/dispatch.h"
#include "lib/runtime/dispatcher.h"
#include "tests/runtime/dispatch_stand.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/scratch_folder.h"

namespace {

using Lines = std::vector<std::string>;

// Tracing that a test starts ends with it, and the log is as before.
struct TracingEnd {
    ~TracingEnd() {
        Tracing_Stop();
        Tracing_Clear();
        logSetStream(stderr);
        logSetUtcStamp(false);
    }
};

// The file's lines without stamp, program, thread and addresses: "[QUEUE] pelmoQueue_Create(1001)".
Lines linesOf(const std::string& path) {
    static const std::regex prefix("^[-0-9]+ [0-9:.]+Z [^:]+: (?:(\\[[A-Z_]+\\])\\[[0-9]+\\]: )?");
    static const std::regex address("0x[0-9a-f]+");
    Lines lines;
    const std::string text = readFile(path);
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        std::string line = std::regex_replace(text.substr(at, end - at), prefix, "$1 ");
        lines.push_back(std::regex_replace(line, address, "P"));
        at = end + 1;
    }
    return lines;
}

std::string modulesOn() {
    std::string on;
    for (uint32_t module = 0; module < kTraceModules; ++module)
        on += traceOps.enabled[module] != 0 ? std::to_string(module) + " " : "";
    return on;
}

TEST(Tracing, ReadsItsSettings) {
    const struct {
        const char* modules;
        pelmoStatus status;
        const char* on;
    } cases[] = {
        {nullptr, kStatusSuccess, ""},
        {"", kStatusSuccess, ""},
        {"EVENTS,QUEUE", kStatusSuccess, "5 8 "},
        {"Q", kStatusSuccess, "8 "},
        {"M,QG,D,DQ_,DI", kStatusSuccess, "0 1 6 9 11 "},
        {"MSG_", kStatusSuccess, "7 "},
        {"EVENTS,,QUEUE", kStatusInvalidArgument, "5 "},
        {"EVENTS,", kStatusInvalidArgument, "5 "},
        {"TPORT,NOSUCH,FT", kStatusNotFound, "10 "},
        {"QUEUES", kStatusNotFound, ""},
        {"queue", kStatusNotFound, ""},
        {"RECV=A.>,RECV=*.B,CM", kStatusSuccess, "3 12 "},
        {"RECV=A..B,CM", kStatusInvalidSubject, "3 "},
        {"RECV=", kStatusInvalidSubject, "3 "},
        {"PELMO=A=B", kStatusSuccess, "4 "},
    };
    for (const auto& [modules, status, on] : cases) {
        SCOPED_TRACE(modules != nullptr ? modules : "null");
        const TracingEnd end;
        EXPECT_EQ(Tracing_Start(modules, nullptr, nullptr), status);
        EXPECT_EQ(modulesOn(), on);
        EXPECT_EQ(traceOps.on, status == kStatusSuccess && *on != '\0' ? 1U : 0U);
    }
    EXPECT_EQ(modulesOn(), "");
}

TEST(Tracing, SendsTheLogWhereItIsTold) {
    const Folder folder;
    const std::string file = folder.path("trace");
    const struct {
        std::string name;
        pelmoStatus status;
        FILE* stream;  // null: the file's
    } cases[] = {
        {"stderr", kStatusSuccess, stderr},
        {"STDERR", kStatusSuccess, stderr},
        {"stdout", kStatusSuccess, stdout},
        {"STDOUT", kStatusSuccess, stdout},
        {file, kStatusSuccess, nullptr},
        {"", kStatusSuccess, stderr},
        {folder.path("none/trace"), kStatusInvalidArgument, stderr},
    };
    for (const auto& [name, status, stream] : cases) {
        SCOPED_TRACE(name);
        logSetStream(stderr);
        const TracingEnd end;
        EXPECT_EQ(Tracing_Start("QUEUE", name.c_str(), nullptr), status);
        EXPECT_EQ(traceOps.on, status == kStatusSuccess ? 1U : 0U);
        if (stream != nullptr) {
            EXPECT_EQ(logStreamGet(), stream);
        } else {
            EXPECT_NE(logStreamGet(), stderr);
            Tracing_Stop();
            EXPECT_EQ(logStreamGet(), stderr);
        }
    }
    // No modules: the file is left alone.
    EXPECT_EQ(Tracing_Start("", folder.path("unused").c_str(), "banner"), kStatusSuccess);
    EXPECT_EQ(folder.names(), std::set<std::string>{"trace"});
}

TEST(Tracing, WritesALineForEachCall) {
    const Folder folder;
    const TracingEnd end;
    const std::string file = folder.path("trace");
    const DispatchStand stand;
    ASSERT_EQ(Tracing_Start("QUEUE,QGROUP,DISP,EVENTS", file.c_str(), "\nPelmo API"),
              kStatusSuccess);
    uint32_t queue = 0, group = 0, event = 0, dispatcher = 0, count = 0;
    const char* name = nullptr;
    EXPECT_EQ(pelmoQueue_Create(nullptr), kStatusInvalidArgument);  // no line
    EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_SetName(0, nullptr), kStatusInvalidQueue);
    EXPECT_EQ(pelmoQueue_GetCount(queue, &count), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusTimeout);
    EXPECT_EQ(pelmoQueue_TimedDispatchSingle(queue, 0.0005), kStatusTimeout);
    EXPECT_EQ(pelmoQueueGroup_TimedDispatch(group, 0), kStatusTimeout);
    event = listen(queue, [](uint32_t, pelmoMsg*, void*) {});
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    EXPECT_EQ(pelmoDispatcher_CreateEx(&dispatcher, queue, 1.5), kStatusInvalidArgument);
    EXPECT_EQ(pelmoDispatcher_GetName(7, &name), kStatusInvalidQueue);
    EXPECT_EQ(pelmoDispatcher_SetName(7, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoDispatcher_Join(7), kStatusInvalidDispatcher);
    EXPECT_EQ(pelmoDispatcher_Destroy(7), kStatusInvalidDispatcher);
    pelmoQueueGroup_Destroy(group);
    Tracing_Stop();

    const std::string q = std::to_string(queue), g = std::to_string(group);
    const std::string e = std::to_string(event);
    const Lines expected = {
        " ",
        "Pelmo API",
        "[QUEUE] pelmoQueue_Create(" + q + ")",
        "[QGROUP] pelmoQueueGroup_Create(" + g + ")",
        "[QUEUE] pelmoQueue_SetName(0, \"<NULL>\")",
        "[QUEUE] pelmoQueue_GetCount(" + q + ", P)",
        "[DISP] pelmoQueue_TimedDispatch(" + q + ", 0.000000)",
        "[DISP] pelmoQueue_TimedDispatch(" + q + ", 0.000500)",
        "[DISP] pelmoQueueGroup_TimedDispatch(" + g + ", 0.000000)",
        "[EVENTS] pelmoEvent_CreateListener(" + e + ", " + q + ", P, 10, \"A\", (nil))",
        "[EVENTS] pelmoEvent_DestroyEx(" + e + ", (nil))",
        "[QUEUE] pelmoQueue_DestroyEx(" + q + ", (nil), (nil))",
        "[DISP] pelmoDispatcher_GetName(7, P)",
        "[DISP] pelmoDispatcher_SetName(7, \"<NULL>\")",
        "[DISP] pelmoDispatcher_Join(7)",
        "[DISP] pelmoDispatcher_Destroy(7)",
        "[QGROUP] pelmoQueueGroup_Destroy(" + g + ")",
    };
    EXPECT_EQ(linesOf(file), expected);
}

pelmoMsg* messageOn(const char* subject) {
    pelmoMsg* message = nullptr;
    EXPECT_EQ(pelmoMsg_Create(&message), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(message, "a", 1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_SetSendSubject(message, subject), kStatusSuccess);
    return message;
}

TEST(Tracing, FiltersMessagesBySubject) {
    const Folder folder;
    const TracingEnd end;
    const std::string file = folder.path("trace");
    ASSERT_EQ(Tracing_Start("RECV=A.>,RECV=B.>,TPORT", file.c_str(), nullptr), kStatusSuccess);
    for (const char* subject : {"A.x", "B", "B.y.z", "C.x"}) {
        pelmoMsg* message = messageOn(subject);
        EXPECT_EQ(Trace_Message(kTraceReceive, message, "got %d", 5), kStatusSuccess);
        EXPECT_EQ(msgCloseEnvelope(message), kStatusSuccess);  // the subject is a field then
        traceMessage(kTraceReceive, message, "closed");
        pelmoMsg_Destroy(message);
    }
    traceLine(kTraceReceive, "no message");  // filters are for messages
    pelmoMsg* message = messageOn("Q");
    traceMessage(kTraceTransport, message, "%s", "sent");
    traceMessage(kTraceEvents, message, "off");
    pelmoMsg_Destroy(message);
    Tracing_Stop();
    const Lines expected = {
        "[RECV] got 5: (A.x) {a=1}",
        "[RECV] closed: (A.x) {sub=[A.x] mtype=\"D\" data={a=1}}",
        "[RECV] got 5: (B.y.z) {a=1}",
        "[RECV] closed: (B.y.z) {sub=[B.y.z] mtype=\"D\" data={a=1}}",
        "[RECV] no message",
        "[TPORT] sent: (Q) {a=1}",
    };
    EXPECT_EQ(linesOf(file), expected);
}

TEST(Tracing, RefusesWhatIsNoMessageWithASubject) {
    const TracingEnd end;
    const Folder folder;
    ASSERT_EQ(Tracing_Start("RECV", folder.path("trace").c_str(), nullptr), kStatusSuccess);
    pelmoMsg* message = nullptr;
    ASSERT_EQ(pelmoMsg_Create(&message), kStatusSuccess);
    EXPECT_EQ(Trace_Message(kTraceReceive, nullptr, "x"), kStatusInvalidMessage);
    EXPECT_EQ(Trace_Message(kTraceReceive, message, "x"), kStatusInvalidSubject);
    EXPECT_EQ(pelmoMsg_AddString(message, "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(Trace_Message(kTraceReceive, message, "x"), kStatusInvalidSubject);
    EXPECT_EQ(Trace_Message(kTraceEvents, nullptr, "x"), kStatusSuccess);  // off
    pelmoMsg_Destroy(message);
    EXPECT_EQ(linesOf(folder.path("trace")), Lines{});
}

TEST(Tracing, CutsMessageLines) {
    const TracingEnd end;
    const Folder folder;
    const std::string file = folder.path("trace");
    ASSERT_EQ(Tracing_Start("RECV", file.c_str(), nullptr), kStatusSuccess);
    pelmoMsg* message = messageOn("A");
    EXPECT_EQ(pelmoMsg_AddString(message, "t", std::string(2000, 'z').c_str(), 0), kStatusSuccess);
    const uint32_t held = message->bufferRefs;
    EXPECT_EQ(Trace_Message(kTraceReceive, message, "call"), kStatusSuccess);
    EXPECT_EQ(message->bufferRefs, held);
    EXPECT_EQ(Trace_Message(kTraceReceive, message, "%s", std::string(3000, 'y').c_str()),
              kStatusSuccess);
    pelmoMsg_Destroy(message);
    Tracing_Stop();
    const std::string begin = "call: (A) {a=1 t=\"";
    const Lines expected = {"[RECV] " + begin + std::string(1023 - begin.size(), 'z'),
                            "[RECV] " + std::string(1023, 'y')};
    EXPECT_EQ(linesOf(file), expected);
}

// To the standard error stream, which a file stands in for.
std::string shown() {
    const Folder folder;
    std::fflush(stderr);
    const int kept = dup(STDERR_FILENO);
    FILE* file = std::fopen(folder.path("shown").c_str(), "w");
    dup2(fileno(file), STDERR_FILENO);
    Tracing_Show();
    std::fflush(stderr);
    dup2(kept, STDERR_FILENO);
    close(kept);
    std::fclose(file);
    return readFile(folder.path("shown"));
}

TEST(Tracing, ShowsItsSettings) {
    const Folder folder;
    const TracingEnd end;
    const std::string head = "Mod\tVal\tFilter\n";
    const auto rows = [](const char* advisories, const char* receive) {
        return std::string("DQ\tF\tNone\nDQ_DETAIL\tF\tNone\nADV\t") + advisories +
               "\tNone\nRECV\t" + receive +
               "\nPELMO\tF\tNone\nEVENTS\tF\tNone\nMSG\tF\tNone\nMSG_DETAIL\tF\tNone\n"
               "QUEUE\tF\tNone\nQGROUP\tF\tNone\nTPORT\tF\tNone\nDISP\tF\tNone\nCM\tF\tNone\n"
               "FT\tF\tNone\n";
    };
    EXPECT_EQ(shown(), "Output directed to: stderr\n" + head + rows("F", "F\tNone"));
    ASSERT_EQ(Tracing_Start("RECV=A.>", "stdout", nullptr), kStatusSuccess);
    EXPECT_EQ(shown(), "Output directed to: stdout\n" + head + rows("F", "T\tA.>"));

    // A further start adds to what there is; a stop keeps it.
    ASSERT_EQ(Tracing_Start("ADV", folder.path("trace").c_str(), nullptr), kStatusSuccess);
    EXPECT_EQ(shown(), "Output directed to: file\n" + head + rows("T", "T\tA.>"));
    Tracing_Stop();
    EXPECT_EQ(traceOps.on, 0U);
    EXPECT_EQ(shown(), "Output directed to: stderr\n" + head + rows("T", "T\tA.>"));
    Tracing_Clear();
    EXPECT_EQ(shown(), "Output directed to: stderr\n" + head + rows("F", "F\tNone"));
}

TEST(Tracing, LeavesNothingBehindWithoutMemory) {
    const size_t failing = eachAllocationFails([] {
        const TracingEnd end;
        const pelmoStatus status = Tracing_Start("RECV=A.B,RECV=A.>", nullptr, nullptr);
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        EXPECT_EQ(traceOps.on, status == kStatusSuccess ? 1U : 0U);
    });
    EXPECT_GT(failing, 2U);
}

// Filters write to their lists: lines of several threads go one by one.
TEST(TracingStress, TakesLinesFromAllThreads) {
    constexpr int kThreads = 3, kLines = 300;
    const TracingEnd end;
    const Folder folder;
    const std::string file = folder.path("trace");
    ASSERT_EQ(Tracing_Start("RECV=A.>", file.c_str(), nullptr), kStatusSuccess);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            pelmoMsg* message = messageOn("A.x");
            for (int line = 0; line < kLines; ++line)
                traceMessage(kTraceReceive, message, "n");
            pelmoMsg_Destroy(message);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    Tracing_Stop();
    EXPECT_EQ(linesOf(file), Lines(kThreads * kLines, "[RECV] n: (A.x) {a=1}"));
}

}  // namespace
