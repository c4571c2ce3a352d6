// Log lines of one cause that each packet may bring. Once they are paced, the same text comes at
// most once a second, with a count of the rest:
//
//     Out of memory allocating host entry
//     Out of memory allocating host entry (81234 more)
//
// Until then each is written as it comes: what a run over a saved capture writes doesn't depend on
// how quick it is.
//
// Failure: there is room for 32 texts; those of others are written as they come.
//
// Threads: any, with any lock held that the log bears.

#pragma once

[[gnu::format(printf, 1, 2)]] void logPaced(const char* format, ...);

void logPaceBegin();

// Tells of the texts held back for a second or longer, which may not come again to tell.
void logPaceSettle();
