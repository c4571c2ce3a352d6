// The call log of the message object: what is written, in which module, and that nothing is while
// it is off.

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <regex>
#include <string>

#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/trace_ops.h"
#include "tests/support/message_values.h"

namespace {

std::string told;

[[gnu::format(printf, 2, 3)]] void keepLine(uint32_t module, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    // Addresses differ from run to run.
    told += std::to_string(module) + " " +
            std::regex_replace(text, std::regex("0x[0-9a-f]+"), "P") + "; ";
}

TEST(MessageTrace, TellsOfEachCall) {
    const Message msg = newMessage();
    ASSERT_EQ(pelmoMsg_AddI32(msg.get(), "a", 1, 5), kStatusSuccess);
    const Bytes image = imageOf(msg.get());
    pelmoMsg* made = nullptr;
    pelmoMsgField field;
    traceOps.write = keepLine;
    traceOps.on = traceOps.enabled[kTraceMsg] = traceOps.enabled[kTraceMsgDetail] = 1;
    (void)pelmoMsg_CreateEx(&made, 100);
    (void)pelmoMsg_Reset(made);
    (void)pelmoMsg_Detach(made);
    (void)pelmoMsg_Destroy(made);
    (void)msgShareCopy(&made, msg.get());
    msgClearOwned(made);
    (void)pelmoMsg_Destroy(made);
    msgRelease(made);
    (void)pelmoMsg_CreateFromBytes(&made, image.data());
    msgRelease(made);
    (void)pelmoMsg_CreateCopy(msg.get(), &made);
    (void)pelmoMsg_AddNone(made, "n", 0);
    (void)pelmoMsg_AddI32(made, "i", 1, 0);
    (void)pelmoMsg_UpdateI32(made, "a", 2, 0);
    (void)pelmoMsg_GetFieldEx(made, nullptr, &field, 5);
    (void)pelmoMsg_GetFieldInstance(made, "a", &field, 1);
    (void)pelmoMsg_RemoveFieldEx(made, "a", 5);
    (void)pelmoMsg_Expand(made, -1);
    msgRelease(made);
    (void)pelmoMsg_Create(&made);
    (void)pelmoMsg_Destroy(made);
    traceOps.on = traceOps.enabled[kTraceMsg] = traceOps.enabled[kTraceMsgDetail] = 0;
    traceOps.write = nullptr;
    EXPECT_EQ(
        told,
        "6 Message P created; 6 pelmoMsg_CreateEx(P, 100); 6 pelmoMsg_Reset(P); 6 "
        "pelmoMsg_Detach(P); "
        "6 pelmoMsg_Destroy(P); 6 Message P destroyed; 6 Message P created as copy of P; "
        "6 pelmoMsg_Destroy(P), not permitted; 6 Message P destroyed; 6 Message P created; "
        "6 pelmoMsg_CreateFromBytes(P, P); 6 Message P destroyed; 6 Message P created; "
        "6 pelmoMsg_CreateCopy(P, P); 7 pelmoMsg_AddField(P, P) type=22; "
        "7 pelmoMsg_AddField(P, P) type=18; 7 pelmoMsg_UpdateField(P, P); "
        "7 pelmoMsg_GetFieldEx(P, \"<NULL>\", P, 5); 7 pelmoMsg_GetFieldInstance(P, \"a\", P, 1); "
        "7 pelmoMsg_RemoveFieldEx(P, \"a\", 5); 7 pelmoMsg_Expand(P, -1); 6 Message P destroyed; "
        "6 Message P created; 6 pelmoMsg_Create(P); 6 pelmoMsg_Destroy(P); 6 Message P "
        "destroyed; ");
}

}  // namespace
