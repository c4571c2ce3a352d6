// A Snapshot: a flat copy, in one block, of everything that had traffic since the Snapshot before.
// It separates counting from output: every form of output reads a Snapshot and never the live
// statistics.
//
// The block holds, in this order: the head; all SnapPort, SnapNet, SnapHost, SnapRlHost,
// SnapPtpHost, SnapSubject and SnapSubjectHost records; the subjects in their packed form, each on
// a 4-byte boundary; the pointers to the host status messages; these messages, each on a 4-byte
// boundary. A parent's pointer and count describe its slice of the shared array.
//
// Ownership: the block belongs to this module and is valid until the next snapshotTake, unless it
// is taken over (trace/counts/snapshot_storage.h).
//
// Failure: where memory runs out for all that had traffic, a Snapshot has the largest part that
// there is memory for. The rest stays as it is, and the next ones have it. Only the senders of a
// subject are left out for good; the subject's own counters are whole. Without memory even for a
// small part snapshotTake returns null; then nothing was copied or zeroed, and the next one that
// succeeds covers both intervals. The log says when memory ran out.
//
// Threads: snapshotTake holds `statsLock` from its first read to its last copy. Sorting and reading
// need no lock; one thread at a time takes, sorts and reads.
//
// Units and byte order: addresses and ports are words in network order, bytes and packets are
// counts of the interval.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/clock.h"
#include "trace/counts/faults.h"
#include "trace/counts/two_sided_counters.h"

struct SnapHost {
    uint32_t host;
    uint16_t port;  // the SCid, 0 for none
    double reliability;
    uint64_t bad, gaps, data, bytes, nulls, rdata, rbytes;
};

struct SnapRlHost {
    uint32_t host;
    uint16_t port;
    RlCounters counters;
};

struct SnapPtpHost {
    uint32_t host;
    uint16_t port;
    PtpCounters counters;
};

struct SnapSubjectHost {
    uint32_t host;
    uint16_t port;
    uint64_t msgs, bytes;
};

struct SnapSubject {
    const uint8_t* subject;  // packed
    uint64_t msgs, bytes;    // of all its senders
    uint32_t hostCount;      // 0 unless TraceSettings::countSenders
    SnapSubjectHost* hosts;
};

struct SnapNet {
    uint32_t net;
    uint32_t hostCount;
    SnapHost* hosts;
    uint32_t subjectCount;
    SnapSubject* subjects;
    uint32_t statusMsgCount;
    const uint8_t** statusMsgs;  // null when the count is 0
};

struct SnapPort {
    uint16_t port;
    uint16_t servicePort;  // the same, unless servicesFind found another for retransmission
    uint32_t netCount;
    SnapNet* nets;
    uint32_t rlHostCount;
    SnapRlHost* rlHosts;
    uint32_t ptpHostCount;
    SnapPtpHost* ptpHosts;
};

// Sums of whole tables. Each is a record of the kind that it adds up; only its counters are used.
struct SnapTotals {
    SnapHost multicast;
    RlCounters retransmission;
    PtpCounters pointToPoint;
    SnapSubjectHost subjects;
};

inline constexpr size_t kSnapNotReadKinds = 10;

// What the source reports about itself. The code that runs the source fills it in (trace/run/), for
// forms of output that ask for it.
struct SnapSource {
    // Live: frames of the interval that were lost on their way to the tool. 0 if the system
    // doesn't report them.
    uint64_t kernelDrops;     // no room in the system's buffer: the tool was too slow
    uint64_t interfaceDrops;  // by the interface or its driver

    // A saved capture: how far it was read, and its size. 0 where it is no regular file.
    uint64_t readBytes, fileBytes;

    // Frames of the interval that aren't read as packets of the bus, by the reasons of the program
    // whose source it is. Zeros in the tool.
    uint64_t notRead[kSnapNotReadKinds];
};

// How long an interval was, for forms of output that want it exactly. The program that shows the
// Snapshot fills it in; zeros in what snapshotTake gives.
struct SnapSpan {
    int64_t elapsedNanoseconds;  // 0 or more, whatever the wall clock did
    int64_t skippedNanoseconds;  // of silence before the interval, which no Snapshot covers
    int64_t stepNanoseconds;     // by which the clock was set; below 0: back
};

struct SnapHeader {
    TimeSpec prevTime;  // when the snapshot before was taken
    TimeSpec thisTime;
    SnapSpan span;
    uint64_t frames;       // that came from the source
    uint64_t packets;      // of any kind that reached classification
    uint64_t oskaPackets;  // those of the bus among them
    SnapSource source;
    FaultCounts faults;

    // What was counted and has no record here. Zeros in what snapshotTake gives; code that adds
    // up Snapshots may bound the number of records.
    SnapTotals beyond;

    uint32_t portCount;
    SnapPort* ports;
};

// Null when memory runs out even for a small part.
[[nodiscard]] SnapHeader* snapshotTake(TimeSpec time);

// Called at the start of a run with the time from which the first snapshot counts.
void snapshotSetStart(TimeSpec time);

// Sorts in place: ports by number; nets, hosts and subject hosts by address, then SCid; subjects
// element by element. Only the order within the arrays changes; all pointers stay valid.
void snapshotSort(SnapHeader* snapshot);
