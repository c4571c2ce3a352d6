/* in_c [DAEMON]: asks for the time by the plain calls and prints the answer; sends itself a
 * message. */

#include <pelmo/pelmo.h>
#include <stdio.h>

static int failed(const char* step, pelmoStatus status) {
    if (status == kStatusSuccess) return 0;
    fprintf(stderr, "in_c: %s: %s\n", step, pelmoStatus_GetText(status));
    return 1;
}

static void onMessage(uint32_t event, pelmoMsg* msg, void* closure) {
    int* seen = closure;
    const char* text = NULL;
    size_t length = 0;
    (void)event;
    if (pelmoMsg_GetStringN(msg, "text", &text, &length, 0) == kStatusSuccess) {
        printf("heard: %.*s\n", (int)length, text);
        ++*seen;
    }
}

static int ask(uint32_t bus) {
    pelmoMsg* request = NULL;
    pelmoMsg* answer = NULL;
    const char* text = NULL;
    int wrong = failed("request", pelmoMsg_Create(&request)) ||
                failed("subject", pelmoMsg_SetSendSubject(request, "TIME.NOW")) ||
                failed("zone", pelmoMsg_AddString(request, "zone", "UTC", 0)) ||
                failed("answer", pelmoTransport_SendRequest(bus, request, &answer, 5.0)) ||
                failed("text", pelmoMsg_ConvertToString(answer, &text));
    if (!wrong) printf("%s\n", text);
    if (answer != NULL) pelmoMsg_Destroy(answer);
    if (request != NULL) pelmoMsg_Destroy(request);
    return wrong;
}

static int sendToSelf(uint32_t bus) {
    uint32_t queue = kNoId;
    uint32_t listener = kNoId;
    int seen = 0;
    pelmoMsg* msg = NULL;
    int wrong = failed("queue", pelmoQueue_Create(&queue)) ||
                failed("listener", pelmoEvent_CreateListener(&listener, queue, onMessage, bus,
                                                             "HELLO", &seen)) ||
                failed("message", pelmoMsg_Create(&msg)) ||
                failed("subject", pelmoMsg_SetSendSubject(msg, "HELLO")) ||
                failed("text", pelmoMsg_AddString(msg, "text", "from C", 0)) ||
                failed("send", pelmoTransport_Send(bus, msg)) ||
                failed("dispatch", pelmoQueue_TimedDispatch(queue, 10.0)) || seen != 1;
    if (msg != NULL) pelmoMsg_Destroy(msg);
    pelmoEvent_DestroyWait(listener);
    pelmoQueue_DestroyEx(queue, NULL, NULL);
    return wrong;
}

int main(int count, char** words) {
    uint32_t bus = kNoId;
    int wrong = 0;
    if (failed("open", pelmo_Open())) return 1;
    wrong = failed("connect",
                   pelmoTransport_CreateNetwork(&bus, NULL, NULL, count > 1 ? words[1] : "7500")) ||
            sendToSelf(bus) || ask(bus);
    return failed("close", pelmo_Close()) || wrong;
}
