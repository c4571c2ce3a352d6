#include "trace/run/report_output.h"

#include <cstdio>
#include <utility>

#include "lib/base/log.h"
#include "trace/report/report.h"
#include "trace/run/end_status.h"
#include "trace/settings.h"

namespace {

bool isLossTold = false;

}  // namespace

void reportPrint(SnapHeader* snapshot) {
    printSnapshot(snapshot);
    reportCheckOutput();
}

void reportCheckOutput() {
    std::fflush(stdout);
    const bool lost = std::ferror(stdout) != 0;
    std::clearerr(stdout);
    if (lost && !traceSettings.liveCapture) endMarkFailed();
    if (std::exchange(isLossTold, lost) || !lost) return;
    logPrint("reports can't be written to the standard output; the run goes on.");
}
