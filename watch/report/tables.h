// The tables of a report, flat, from the sums of a whole capture.
//
// Ownership: rows point into the Snapshot, which outlives them.
//
// Failure: std::bad_alloc; whoever makes a report answers for it (page.h).
//
// Threads: any; no state.

#pragma once

#include <cstdint>
#include <vector>

#include "trace/counts/snapshot.h"

struct ReportSubject {
    const SnapPort* port;
    const SnapNet* net;
    const SnapSubject* subject;
};

// A host, as a sender to whatever group on whatever port.
struct ReportSender {
    SnapHost sum;
    uint64_t messages, messageBytes;
};

struct ReportGroup {
    const SnapPort* port;
    const SnapNet* net;
    SnapHost sum;
    uint64_t messages, messageBytes;
};

struct ReportHost {
    const SnapPort* port;
    const SnapRlHost* retransmission;  // one of the two
    const SnapPtpHost* pointToPoint;
};

struct ReportTables {
    std::vector<ReportSubject> subjects;
    std::vector<ReportSender> senders;
    std::vector<ReportGroup> groups;
    std::vector<ReportHost> retransmission;
    std::vector<ReportHost> pointToPoint;
};

// Messages of senders are known where the senders of subjects are counted.
[[nodiscard]] ReportTables reportTables(const SnapHeader& sum);
