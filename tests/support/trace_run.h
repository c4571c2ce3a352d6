// A run of the packet analysis for tests: a tree of statistics of its own, the log lines of the
// run, and the whole tree or a whole snapshot as text. Tests compare all of it, so that a counter
// moved by mistake shows.
//
// A line of the text is one record: its kind and key, "live" where it is marked, and each field
// that isn't 0. Records of a kind stand in the order of their keys.
//
//     packets=2 oska=1
//     port 7500 live
//      net 239.1.1.1 live
//       host 10.0.0.1:7001 live epoch=80000001 lastSeq=1 data=1 bytes=59
//       subject A.B live
//        from 10.0.0.1:7001 live msgs=1 bytes=59
//       held 1 in 60
//      rl 10.0.0.1:7001 live rreqSent=1 rseqSent=3
//      ptp 10.0.0.1:7001 live ackSent=1
//
// Only one run at a time; they don't nest.

#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/packet_builder.h"
#include "trace/counts/snapshot.h"

using Lines = std::vector<std::string>;

class TraceRun {
  public:
    explicit TraceRun(bool complain = true);
    ~TraceRun();
    TraceRun(const TraceRun&) = delete;
    TraceRun& operator=(const TraceRun&) = delete;

    // What was logged since the last call, without time stamps and program name.
    Lines logged();

  private:
    char* logText_ = nullptr;
    size_t logBytes_ = 0;
    FILE* log_ = nullptr;
    size_t logTaken_ = 0;
    bool complainBefore_;
};

// As the snapshot text has them.
std::string hexText(const Bytes& bytes);

void analyze(const std::vector<Bytes>& packets);

Lines treeText();

// The same form, with the times in the first line and "message <hex>" for host status messages. In
// the order of the arrays.
Lines snapshotText(const SnapHeader& snapshot);

struct Outcome {
    Lines tree;
    Lines logged;

    bool operator==(const Outcome&) const = default;
};

// Puts the packets through the analysis in a run of their own, without "-complain" and with it: the
// first logs nothing, and both count the same.
Outcome outcomeOf(const std::vector<Bytes>& packets);

// The lines above a sender's, all live, with so many packets; and the sender's own.
Outcome hostOutcome(size_t packetCount, const std::string& host, const Lines& logged = {});

// The same for packets between two hosts: `kind` is "rl" or "ptp".
Outcome pairOutcome(const std::string& kind,
                    const std::string& source,
                    const std::string& destination,
                    const Lines& logged = {});

void PrintTo(const Outcome& outcome, std::ostream* stream);
