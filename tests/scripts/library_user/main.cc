// A program of a user: knows the installed headers and library and nothing else. Sends itself a
// message over the intra-process transport and prints what arrived.

#include <pelmo/pelmo.h>

#include <cstdio>

namespace {

bool check(pelmoStatus status) {
    if (status != kStatusSuccess) std::printf("%s\n", pelmoStatus_GetText(status));
    return status == kStatusSuccess;
}

void onMessage(uint32_t, pelmoMsg* msg, void*) {
    const char* text = nullptr;
    if (check(pelmoMsg_ConvertToString(msg, &text))) std::printf("%s\n", text);
}

}  // namespace

int main() {
    pelmoMsg* msg = nullptr;
    uint32_t listener = kNoId;
    const uint32_t transport = kIntraProcessTransportId;
    const bool isDone =
        check(pelmo_Open()) &&
        check(pelmoEvent_CreateListener(&listener, kDefaultQueueId, onMessage, transport, "A.>",
                                        nullptr)) &&
        check(pelmoMsg_Create(&msg)) && check(pelmoMsg_AddI32(msg, "load", 7, 0)) &&
        check(pelmoMsg_SetSendSubject(msg, "A.B")) && check(pelmoTransport_Send(transport, msg)) &&
        check(pelmoMsg_Destroy(msg)) && check(pelmoQueue_TimedDispatch(kDefaultQueueId, 0)) &&
        check(pelmoEvent_DestroyEx(listener, nullptr)) && check(pelmo_Close());
    return isDone ? 0 : 1;
}
