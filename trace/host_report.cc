#include "trace/host_report.h"

#include "lib/base/bytes.h"

void printHostMessages(uint16_t port, const SnapNet& net, FILE* stream) {
    if (net.statusMsgCount == 0) return;
    std::fprintf(stream, "System host messages for port %u\n", unsigned{hostOrder16(port)});
    std::fputc('\n', stream);
}
