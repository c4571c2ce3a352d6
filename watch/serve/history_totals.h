// The totals of an interval as a list of names and numbers: what the history keeps of each, and
// what clients call it. A table's name comes before a number's, with a dot
// between: "multicast.payload_bytes", "faults.type_invalid"; "faults.packets" are all faults,
// "lost_frames" all frames lost.
//
// Threads: any; no state.

#pragma once

#include <cstdint>

#include "trace/counts/snapshot.h"
#include "watch/core/fields.h"

template <typename Record, size_t kCount, typename Visit>
void historyEachField(const char* prefix,
                      const Field<Record> (&fields)[kCount],
                      const Record& record,
                      Visit& visit) {
    for (const Field<Record>& field : fields) {
        visit(prefix, field.name, record.*field.value);
    }
}

// Calls visit(prefix, name, number) for each of the totals, always in the same order. The prefix is
// empty or ends in a dot.
template <typename Visit>
void historyEachTotal(const SnapHeader& snapshot, const SnapTotals& totals, Visit visit) {
    historyEachField("", kSourceFields, snapshot, visit);
    historyEachField("", kLossFields, snapshot.source, visit);
    visit("", "lost_frames", snapshot.source.kernelDrops + snapshot.source.interfaceDrops);

    uint64_t faults = 0;
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        const uint64_t packets = snapshot.faults[kind].packets;
        visit("faults.", faultRow(static_cast<Fault>(kind)).key, packets);
        faults += packets;
    }
    visit("faults.", "packets", faults);

    historyEachField("multicast.", kMulticastFields, totals.multicast, visit);
    historyEachField("retransmission.", kRetransmissionFields, totals.retransmission, visit);
    historyEachField("point_to_point.", kPointToPointFields, totals.pointToPoint, visit);
    historyEachField("subjects.", kSubjectSenderFields, totals.subjects, visit);
}
