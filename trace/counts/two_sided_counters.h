// The counters of packets between two hosts, by family: in the live record of a host, in its copy
// in a Snapshot, and in the sums of a report. Each quantity is counted on both sides: Sent in the
// record of a packet's source, Recv in that of its destination.
//
// Units: packets of the interval, unless a name says otherwise.

#pragma once

#include <cstdint>

// Retransmission control.
struct RlCounters {
    uint64_t badSent, badRecv;
    uint64_t rreqSent, rreqRecv;
    uint64_t rseqSent, rseqRecv;  // sequence numbers requested
    uint64_t rrejSent, rrejRecv;
};

// Point-to-point traffic.
struct PtpCounters {
    uint64_t badSent, badRecv;
    uint64_t dataSent, dataRecv;
    uint64_t bytesSent, bytesRecv;
    uint64_t nakSent, nakRecv;
    uint64_t ackmeSent, ackmeRecv;
    uint64_t ackSent, ackRecv;
};
