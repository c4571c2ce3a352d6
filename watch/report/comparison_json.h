// The pieces of a comparison as JSON (docs/pelmowatch-compare.schema.json): lines of the form
// "compare", and what a report page has of them.
//
// Failure: JsonBuffer::failed. Threads: any; no state.

#pragma once

#include "watch/json/json_parts.h"
#include "watch/report/comparison.h"

// The members "factor", "is_whole", "before", "now" and "changes". The names are those of the
// captures' files.
void jsonCompared(JsonWriter& out,
                  const Comparison& comparison,
                  const char* beforeName,
                  const char* nowName);

// The members of a row but for its table's name.
void jsonComparedRow(JsonWriter& out, const ComparedRow& row);

// A name of the command line, made safe.
void jsonFileName(JsonWriter& out, const char* name);
