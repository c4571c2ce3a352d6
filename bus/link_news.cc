#include "bus/link_news.h"

#include <cstdio>
#include <exception>

#include "bus/common.h"

namespace {

// Memory that runs out costs a line.
void say(const char* text) {
    try {
        complain(text);
    } catch (const std::exception&) {
    }
}

void onBreak(uint32_t, pelmoMsg*, void*) {
    say("lost the connection to the daemon");
}

void onReturn(uint32_t, pelmoMsg* msg, void*) {
    double seconds = 0;
    (void)pelmoMsg_GetF64(msg, "seconds", &seconds, 0);
    char text[96];
    std::snprintf(text, sizeof text, "connected to the daemon again after %.1f seconds", seconds);
    say(text);
}

}  // namespace

pelmoStatus linkNewsOpen(LinkNews& news, uint32_t transport) {
    pelmoStatus status = pelmoQueue_Create(&news.queue);
    if (status == kStatusSuccess) {
        status = pelmoDispatcher_CreateEx(&news.dispatcher, news.queue, -1);
    }
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&news.breaks, news.queue, onBreak, transport,
                                           "_PM.WARN.SYSTEM.PMD.DISCONNECTED", nullptr);
    }
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&news.returns, news.queue, onReturn, transport,
                                           "_PM.INFO.SYSTEM.PMD.RECONNECTED", nullptr);
    }
    return status;
}

void linkNewsClose(LinkNews& news) {
    if (news.dispatcher != kNoId) pelmoDispatcher_Destroy(news.dispatcher);
    if (news.queue == kNoId) return;
    while (pelmoQueue_TimedDispatch(news.queue, 0) == kStatusSuccess) {
    }
    for (const uint32_t event : {news.breaks, news.returns}) {
        if (event != kNoId) pelmoEvent_DestroyEx(event, nullptr);
    }
    pelmoQueue_DestroyEx(news.queue, nullptr, nullptr);
}
