// The metrics: the series table, and what the process says about itself, as text for Prometheus
// (its text exposition format, version 0.0.4). Names and units are those of watch/core/fields.h; a
// label's text is that of watch/core/text.h, escaped once more where the format wants it.
//
// Failure: false where memory runs out; the text is then of no use.
//
// Threads: metricsOfSeries under the series table's lock; all else any.

#pragma once

#include <prometheus/metric_family.h>

#include <cstdint>
#include <string>
#include <vector>

#include "watch/json/json_buffer.h"
#include "watch/serve/series.h"

// What isn't in the series table.
struct ServeHealth {
    const char* version;
    const char* source;  // an interface's or a file's name

    double intervalSeconds;      // as asked for
    double lagSeconds;           // by which an interval came late, the most of two minutes
    bool isCapturing;            // or has read a saved capture to a sound end
    double snapshotTimeSeconds;  // of the last one, since 1970; 0: none yet

    uint64_t clients, eventClients;  // connected now
    uint64_t cutOffClients;          // since the start, for being slow or too many

    // Of the process.
    double cpuSeconds, startTimeSeconds;
    uint64_t residentBytes, virtualBytes;
    uint64_t openDescriptors, mostDescriptors;
};

using MetricFamilies = std::vector<prometheus::MetricFamily>;

[[nodiscard]] bool metricsOfSeries(const SeriesTable& table, MetricFamilies& out);
[[nodiscard]] bool metricsOfHealth(const ServeHealth& health, MetricFamilies& out);

// Appends the text. The series table needs no lock for it.
[[nodiscard]] bool metricsText(const MetricFamilies& families, JsonBuffer& out);

// What the system says of this process; 0 for what it doesn't say. One thread at a time.
struct ProcessUsage {
    double cpuSeconds;        // user and system time
    double startTimeSeconds;  // since 1970
    uint64_t residentBytes, virtualBytes;
    uint64_t openDescriptors, mostDescriptors;
};

// With the rights that the program was started with: without them the descriptors can't be counted.
void processUsageStart();

[[nodiscard]] ProcessUsage processUsage();
