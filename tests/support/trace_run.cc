#include "tests/support/trace_run.h"

#include <sstream>

#include "lib/base/log.h"
#include "trace/counts/services.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/report/report.h"
#include "trace/settings.h"

TraceRun::TraceRun(bool complain) : complainBefore_(traceSettings.complain) {
    traceSettings.complain = complain;
    traceSettings.countSenders = true;
    log_ = open_memstream(&logText_, &logBytes_);
    logSetStream(log_);
    EXPECT_EQ(statsInit(), kStatusSuccess);
}

TraceRun::~TraceRun() {
    statsDestroy();
    logSetStream(stderr);
    std::fclose(log_);
    std::free(logText_);
    traceSettings.complain = complainBefore_;
    traceSettings.countSenders = false;
}

Lines TraceRun::logged() {
    std::fflush(log_);
    std::istringstream text(std::string(logText_ + logTaken_, logBytes_ - logTaken_));
    logTaken_ = logBytes_;
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        const size_t nameEnd = line.find(": ");
        lines.push_back(nameEnd == std::string::npos ? line : line.substr(nameEnd + 2));
    }
    return lines;
}

Lines TraceRun::report() {
    (void)logged();
    const TraceSettings before = traceSettings;
    traceSettings.displayPtp = traceSettings.displayAddrInfo = traceSettings.displayHostMsgs = true;
    snapshotSetStart({});
    printSnapshot(snapshotTake({}));
    servicesForget();
    traceSettings = before;
    return logged();
}

void analyze(const std::vector<Bytes>& packets) {
    for (const Bytes& packet : packets) {
        analyzePacket({}, packet.data(), packet.size());
    }
}
