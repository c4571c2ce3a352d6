// A program of a user: knows the installed headers and library and nothing else. Sends itself a
// message over the intra-process transport and prints what arrived.

#include <pelmo/pelmo.h>

#include <cstdio>

namespace {

bool check(pelmoStatus status, const char* step) {
    if (status != kStatusSuccess) std::printf("%s: %s\n", step, pelmoStatus_GetText(status));
    return status == kStatusSuccess;
}

void onMessage(uint32_t, pelmoMsg* msg, void*) {
    const char* text = nullptr;
    if (check(pelmoMsg_ConvertToString(msg, &text), "text")) std::printf("%s\n", text);
}

bool send() {
    pelmoMsg* msg = nullptr;
    if (!check(pelmoMsg_Create(&msg), "message")) return false;
    const bool sent = check(pelmoMsg_AddI32(msg, "load", 7, 0), "field") &&
                      check(pelmoMsg_SetSendSubject(msg, "A.B"), "subject") &&
                      check(pelmoTransport_Send(kIntraProcessTransportId, msg), "send");
    return check(pelmoMsg_Destroy(msg), "end of message") && sent;
}

bool receive(uint32_t queue) {
    uint32_t listener = kNoId;
    if (!check(pelmoEvent_CreateListener(&listener, queue, onMessage, kIntraProcessTransportId,
                                         "A.>", nullptr),
               "listener")) {
        return false;
    }
    return send() && check(pelmoQueue_TimedDispatch(queue, 0), "dispatch") &&
           check(pelmoEvent_DestroyEx(listener, nullptr), "end of listener");
}

}  // namespace

int main() {
    if (!check(pelmo_Open(), "open")) return 1;
    const bool received = receive(kDefaultQueueId);
    return check(pelmo_Close(), "close") && received ? 0 : 1;
}
