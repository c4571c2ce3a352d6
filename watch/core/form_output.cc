#include "watch/core/form_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/base/log.h"

bool formOutputOpen(FormOutput& output) {
    const int descriptor = dup(STDOUT_FILENO);
    if (descriptor < 0) {
        logPrint("unable to use the standard output: %s.", std::strerror(errno));
        return false;
    }
    textSinkSet(&output.sink, descriptor);
    return true;
}

bool formOutputWrite(FormOutput& output, std::string_view text) {
    if (textSinkWrite(&output.sink, text.data(), text.size()) == text.size()) return true;
    return formOutputFail(output, std::strerror(output.sink.error));
}

bool formOutputFail(FormOutput& output, const char* reason) {
    const bool isFirst = !std::exchange(output.failed, true);
    if (isFirst && output.sink.error != EPIPE) {
        logPrint("unable to write %s: %s.", output.what, reason);
    }
    return false;
}

void formOutputClose(FormOutput& output) {
    textSinkSet(&output.sink, -1);
}
