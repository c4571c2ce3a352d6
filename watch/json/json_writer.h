// A Snapshot as JSON (RFC 8259), UTF-8, in one of two shapes; docs/pelmowatch.schema.json has both
// to the last member.
//
//     an object   {"time": ..., "totals": {...}, "faults": {...}, "multicast": [rows], ...}
//     rows        a line of the head, then each row of each table on a line of its own
//
// A row is the same in both. Names and units are those of watch/core/fields.h, texts are safe
// (watch/core/text.h). What no JSON number can hold is null.
//
// The Snapshot may be one of an interval or of all since the start (watch/core/totals.h).
//
// Failure: JsonBuffer::failed.
//
// Threads: any; no state.

#pragma once

#include "trace/counts/snapshot.h"
#include "watch/json/json_buffer.h"

// Appends an object without a line break. `total` is null, or a further Snapshot, of all since the
// start, which becomes the member "since_start".
void jsonAppendObject(JsonBuffer& buffer, const SnapHeader& snapshot, const SnapHeader* total);

// Appends lines. Those since the start say so in a member "scope".
void jsonAppendRows(JsonBuffer& buffer, const SnapHeader& snapshot, const SnapHeader* total);
