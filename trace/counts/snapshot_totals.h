// Sums of a Snapshot's tables, for every form of output: the one place that adds up.
//
// Threads: any; no state.

#pragma once

#include <span>

#include "trace/counts/snapshot.h"

// Adds the counters of a record to those of a sum.
void addCounters(SnapHost& sum, const SnapHost& record);
void addCounters(RlCounters& sum, const RlCounters& record);
void addCounters(PtpCounters& sum, const PtpCounters& record);

[[nodiscard]] SnapHost sumOfHosts(std::span<const SnapHost> hosts);
[[nodiscard]] RlCounters sumOfHosts(std::span<const SnapRlHost> hosts);
[[nodiscard]] PtpCounters sumOfHosts(std::span<const SnapPtpHost> hosts);

// Of the whole Snapshot. A two-sided quantity is counted on both sides, and summed on each.
[[nodiscard]] SnapTotals snapshotAddUp(const SnapHeader& snapshot);
