// The call log of the message object: what is written, in which module, and that nothing is while
// it is off.

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "lib/msg/message.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/trace_ops.h"
#include "tests/support/message_values.h"

namespace {

std::vector<std::string> lines;

[[gnu::format(printf, 2, 3)]] void keepLine(uint32_t module, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    // Addresses differ from run to run.
    lines.push_back(std::to_string(module) + " " +
                    std::regex_replace(text, std::regex("0x[0-9a-f]+"), "P"));
}

struct Tracing {
    Tracing() {
        lines.clear();
        traceOps.write = keepLine;
        traceOps.enabled[kTraceMsg] = 1;
        traceOps.enabled[kTraceMsgDetail] = 1;
        traceOps.on = 1;
    }
    ~Tracing() {
        traceOps.on = 0;
        traceOps.enabled[kTraceMsg] = 0;
        traceOps.enabled[kTraceMsgDetail] = 0;
        traceOps.write = nullptr;
    }
};

using Lines = std::vector<std::string>;

TEST(MessageTrace, TellsOfEachCall) {
    const Message msg = newMessage();
    ASSERT_EQ(pelmoMsg_AddI32(msg.get(), "a", 1, 5), kStatusSuccess);
    const Bytes image = imageOf(msg.get());
    pelmoMsg* made = nullptr;
    pelmoMsgField field;
    uint32_t number = 0;
    const void* bytes = nullptr;
    char copy[100];
    const struct {
        std::function<pelmoStatus()> call;
        Lines lines;
    } cases[] = {
        {[&] { return pelmoMsg_Create(&made); }, {"6 Message P created", "6 pelmoMsg_Create(P)"}},
        {[&] { return pelmoMsg_Destroy(made); },
         {"6 pelmoMsg_Destroy(P)", "6 Message P destroyed"}},
        {[&] { return pelmoMsg_CreateEx(&made, 100); },
         {"6 Message P created", "6 pelmoMsg_CreateEx(P, 100)"}},
        {[&] { return pelmoMsg_Reset(made); }, {"6 pelmoMsg_Reset(P)"}},
        {[&] { return pelmoMsg_Detach(made); }, {"6 pelmoMsg_Detach(P)"}},
        {[&] {
             msgClearOwned(made);
             return pelmoMsg_Destroy(made);
         },
         {"6 pelmoMsg_Destroy(P), not permitted"}},
        {[&] {
             msgRelease(made);
             return kStatusSuccess;
         },
         {"6 Message P destroyed"}},
        {[&] { return pelmoMsg_CreateFromBytes(&made, image.data()); },
         {"6 Message P created", "6 pelmoMsg_CreateFromBytes(P, P)"}},
        {[&] {
             msgRelease(made);
             return msgShareCopy(&made, msg.get());
         },
         {"6 Message P destroyed", "6 Message P created as copy of P"}},
        {[&] {
             msgRelease(made);
             return pelmoMsg_CreateCopy(msg.get(), &made);
         },
         {"6 Message P destroyed", "6 Message P created", "6 pelmoMsg_CreateCopy(P, P)"}},
        {[&] { return pelmoMsg_AddNone(made, "n", 0); }, {"7 pelmoMsg_AddField(P, P) type=22"}},
        {[&] { return pelmoMsg_UpdateI32(made, "a", 2, 0); }, {"7 pelmoMsg_UpdateField(P, P)"}},
        {[&] { return pelmoMsg_GetFieldEx(made, nullptr, &field, 5); },
         {"7 pelmoMsg_GetFieldEx(P, \"<NULL>\", P, 5)"}},
        {[&] { return pelmoMsg_GetFieldByIndex(made, &field, 1); },
         {"7 pelmoMsg_GetFieldByIndex(P, P, 1)"}},
        {[&] { return pelmoMsg_GetFieldInstance(made, "a", &field, 1); },
         {"7 pelmoMsg_GetFieldInstance(P, \"a\", P, 1)"}},
        {[&] { return pelmoMsg_MarkReferences(made); }, {"7 pelmoMsg_MarkReferences(P)"}},
        {[&] { return pelmoMsg_ClearReferences(made); }, {"7 pelmoMsg_ClearReferences(P)"}},
        {[&] { return pelmoMsg_RemoveFieldEx(made, "a", 5); },
         {"7 pelmoMsg_RemoveFieldEx(P, \"a\", 5)"}},
        {[&] { return pelmoMsg_RemoveFieldInstance(made, "n", 1); },
         {"7 pelmoMsg_RemoveFieldInstance(P, \"n\", 1)"}},
        {[&] { return pelmoMsg_GetNumFields(made, &number); }, {"7 pelmoMsg_GetNumFields(P, P)"}},
        {[&] { return pelmoMsg_GetByteSize(made, &number); }, {"7 pelmoMsg_GetByteSize(P, P)"}},
        {[&] { return pelmoMsg_GetAsBytes(made, &bytes); }, {"7 pelmoMsg_GetAsBytes(P, P)"}},
        {[&] { return pelmoMsg_GetAsBytesCopy(made, copy, 100); },
         {"7 pelmoMsg_GetAsBytesCopy(P, P, 100)"}},
        {[&] { return pelmoMsg_Expand(made, -1); }, {"7 pelmoMsg_Expand(P, -1)"}},
    };
    for (const auto& row : cases) {
        const Tracing tracing;
        (void)row.call();
        EXPECT_EQ(lines, row.lines);
    }
    msgRelease(made);
}

TEST(MessageTrace, IsSilentWhileAnySwitchIsOff) {
    lines.clear();
    traceOps.write = keepLine;
    const struct {
        uint32_t on, msg;
        size_t lines;
    } switches[] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 4}};
    for (const auto& row : switches) {
        traceOps.on = row.on;
        traceOps.enabled[kTraceMsg] = row.msg;
        newMessage().reset();
        EXPECT_EQ(lines.size(), row.lines);
    }
    traceOps.on = 0;
    traceOps.enabled[kTraceMsg] = 0;
    traceOps.write = nullptr;
}

}  // namespace
