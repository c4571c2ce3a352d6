// The data of a report page, as JSON (docs/pelmowatch-report.schema.json).
//
// Tables show their largest rows and the sums of all. Each "<" is escaped, so that no text ends the
// element of the page that holds the data.
//
// Threads: any; no state.

#pragma once

#include "trace/counts/snapshot.h"
#include "watch/json/json_buffer.h"
#include "watch/report/timeline.h"

struct ReportInput {
    const SnapHeader* sum;  // of the whole capture, as totals give it
    const Timeline* timeline;
    double intervalSeconds;  // of the source's snapshots
    const char* file;        // its name, as given
    const char* filter;      // null: none
    bool showsPairs;         // senders of subjects in a table of their own

    // The sums of another capture, which is compared with this one, and its name; or null.
    const SnapHeader* before;
    const char* beforeFile;
};

// False when memory runs out.
[[nodiscard]] bool pageAppendData(JsonBuffer& buffer, const ReportInput& input);
