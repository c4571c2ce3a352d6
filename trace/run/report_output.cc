#include "trace/run/report_output.h"

#include <cstdio>
#include <utility>

#include "lib/base/log.h"
#include "trace/report/report.h"
#include "trace/run/run_end.h"
#include "trace/settings.h"

namespace {

bool isLossTold = false;

void logBegin(TimeSpec time) {
    CalendarTime begin;
    calendarFrom(time.seconds, &begin);
    logPrint("Savefile begins at %04d/%02d/%02d-%02d:%02d:%02d\n", begin.year, begin.month,
             begin.day, begin.hour, begin.minute, begin.second);
}

void checkOutput() {
    std::fflush(stdout);
    const bool lost = std::ferror(stdout) != 0;
    std::clearerr(stdout);
    if (lost && !traceSettings.liveCapture) endMarkFailed();
    if (std::exchange(isLossTold, lost) || !lost) return;
    logPrint("reports can't be written to the standard output; the run goes on.");
}

void print(SnapHeader* snapshot) {
    printSnapshot(snapshot);
    checkOutput();
}

}  // namespace

const SnapshotSink kReportSink = {
    .begin = logBegin, .take = print, .end = checkOutput, .wantsSource = false};
