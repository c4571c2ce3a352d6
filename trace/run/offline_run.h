// Reading a saved capture. The clock is the packets' own: a snapshot falls due when a packet is
// strictly later than the time for the next one. That packet counts in the snapshot after.
//
// At most one snapshot falls due per packet. Behind a gap longer than the interval, each of the
// next packets brings one more, until the time for the next snapshot has caught up.
//
// Threads: the main thread, which is capture thread and report writer in one: nobody else looks at
// the statistics, and a packet is analysed without their lock.

#pragma once

// Runs the source to its end, to a read error or to breakCaptureLoop, and hands on the last,
// partial interval.
void runOffline();
