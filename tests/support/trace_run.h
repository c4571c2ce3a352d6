// A run of the packet analysis for tests: a tree of statistics of its own, the log lines of the
// run, and the whole tree as text. Tests compare all of it, so that a counter changed by mistake is
// noticed.
//
// A line of the text is one record: its kind and key, "live" where it is marked, and its counters
// in the order of their declaration; a host has its epoch, sequence number and reliability ahead of
// them. Records of a kind are in the order of their lines.
//
//     port 7500 live
//      net 239.1.1.1 live
//       host 10.0.0.1:7001 live 2147483649 1 0 1 59 0 0 0 0 0
//       subject A.B live
//        from 10.0.0.1:7001 live 1 59
//       held 1 in 60
//      rl 10.0.0.1:7001 live 0 0 1 0 3 0 0 0
//      ptp 10.0.0.1:7001 live 0 0 0 0 0 0 0 0 0 0 1 0
//
// Only one run may exist at a time.

#pragma once

#include <cstdio>

#include "tests/support/packet_builder.h"
#include "tests/support/test.h"

using Lines = std::vector<std::string>;

class TraceRun : public NoCopy {
  public:
    explicit TraceRun(bool complain = true);
    ~TraceRun();

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

// The lines that begin like that, all where nothing is told.
Lines treeText(const std::string& begin = "");
