#include "trace/report/host_report.h"

#include <span>

#include "lib/base/bytes.h"
#include "lib/msg/message.h"
#include "lib/msg/text.h"

namespace {

// The message's text is an argument, never a format.
pelmoStatus printText(pelmoMsg* msg, FILE* stream) {
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(msg, &text);
    if (status != kStatusSuccess) return status;
    std::fputs(text, stream);
    std::fputc('\n', stream);
    return kStatusSuccess;
}

// The first word of a kept message is the number of its bytes.
void printMessage(const uint8_t* bytes, FILE* stream) {
    pelmoMsg* msg = nullptr;
    pelmoStatus status = pelmoMsg_CreateFromBytes(&msg, bytes);
    if (status == kStatusSuccess) {
        status = printText(msg, stream);
        pelmoMsg_Destroy(msg);
    }
    if (status == kStatusSuccess) return;
    std::fprintf(stream, "[message of %u bytes without text: %s]\n", loadBe32At(bytes),
                 pelmoStatus_GetText(status));
}

}  // namespace

void printHostMessages(uint16_t port, const SnapNet& net, FILE* stream) {
    if (net.statusMsgCount == 0) return;
    std::fprintf(stream, "System host messages for port %u\n", unsigned{hostOrder16(port)});
    for (const uint8_t* message : std::span(net.statusMsgs, net.statusMsgCount)) {
        printMessage(message, stream);
    }
    std::fputc('\n', stream);
}
