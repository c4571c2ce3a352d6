// The history as JSON:
//
//     {"interval_seconds":10,"times":[1700000010.123,...],"elapsed_seconds":[10,...],
//      "series":{"data_packets":[0,...],...}}
//
// Times are ends of intervals, in seconds since 1970, and elapsed_seconds their lengths; series are
// counts of the intervals. Those of
// a row have the names of its table's fields, those of the totals the names of
// watch/serve/history_totals.h.
//
// Failure: JsonBuffer::failed.
//
// Threads: no lock; the owner of the history serialises.

#pragma once

#include "watch/json/json_buffer.h"
#include "watch/serve/history.h"

void historyAppendTotals(JsonBuffer& out, const History& history, double intervalSeconds);
void historyAppendRow(JsonBuffer& out,
                      const History& history,
                      const RowKey& key,
                      double intervalSeconds);
