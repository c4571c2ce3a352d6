// A run of the packet analysis for tests: a tree of statistics of its own, the log lines of the
// run, and the whole tree as text. Tests compare all of it, so that a counter changed by mistake is
// noticed.
//
// A line of the text is one record: its kind and key, "live" where it is marked, and each field
// that isn't 0. Records of a kind are in the order of their keys.
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
// Only one run may exist at a time.

#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/packet_builder.h"

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

void analyze(const std::vector<Bytes>& packets);

Lines treeText();
