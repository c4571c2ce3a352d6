// The tables of a report, flat, from the sums of a whole capture.
//
// Ownership: rows point into the Snapshot, which outlives them.
//
// Failure: std::bad_alloc; the maker of the report handles it (page.h).
//
// Threads: any; no state.

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "trace/counts/snapshot.h"

struct ReportSubject {
    const SnapPort* port;
    const SnapNet* net;
    const SnapSubject* subject;
    size_t firstPair;  // in `pairs`: those of a subject lie together
};

// A subject and one of its senders.
struct ReportPair {
    const SnapPort* port;
    const SnapNet* net;
    const SnapSubject* subject;
    const SnapSubjectHost* sender;
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
    std::vector<ReportPair> pairs;  // unless they aren't wanted
    std::vector<ReportSender> senders;
    std::vector<ReportGroup> groups;
    std::vector<ReportHost> retransmission;
    std::vector<ReportHost> pointToPoint;
};

// Messages of senders are known where the senders of subjects are counted.
[[nodiscard]] ReportTables reportTables(const SnapHeader& sum, bool withPairs);

// The numbers of the pairs that a page lists: the largest, and for each listed subject and sender
// its own largest ones, so that each leads somewhere. `subjects` and `senders` are the numbers of
// the listed rows. Each once, ascending.
[[nodiscard]] std::vector<uint32_t> listedPairs(const ReportTables& tables,
                                                std::span<const uint32_t> subjects,
                                                std::span<const uint32_t> senders);
