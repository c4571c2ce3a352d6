// The two modes of a run: reading a saved capture, and capturing live.
//
// Offline, the clock is the packets' own: a snapshot is due when a packet is strictly later than
// the time of the next snapshot, and that packet counts in the interval that follows. At most one
// snapshot is due per packet: after a gap longer than the interval, each of the next packets brings
// one more, until the time of the next snapshot has caught up. A sink may ask for a grid instead
// (trace/run/snapshot_sink.h). The main thread is capture thread and report writer in one, so
// packets are analysed without the lock of the statistics.
//
// Live, packets come on the capture thread, and snapshots on the timer thread.
//
// Threads: the main thread, except where noted.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/clock.h"
#include "lib/base/status.h"

// Reads the source to its end, to a read error or to breakCaptureLoop, and hands on the last,
// partial interval.
void runOffline();

// The parts of an offline run whose packets come from elsewhere. The end hands on the last
// interval.
void offlineRunBegin();
void offlineRunPacket(TimeSpec time, const uint8_t* ip, size_t length);
void offlineRunEnd();

// The capture thread lives until libpcap fails, which is logged; the process goes on without it,
// unless the sink has capture begin again.
// Fails with kStatusNoMemory, or kStatusNotInitialized if the system refuses the thread.
[[nodiscard]] pelmoStatus captureThreadStart();

// Gives up the thread, which is neither stopped nor joined: libpcap may be waiting for a packet.
// Once the shutdown has had `statsLock`, the thread only looks at that flag, however late its
// frame.
void captureThreadRelease();

// Every update interval, on the timer thread: hands on a Snapshot of the wall clock's time
// (trace/run/snapshot_sink.h). Capture doesn't wait for what is done with it. With an interval of 0
// there is at most one per millisecond.
void onSnapshotTimer();

// Seconds between two calls of it.
[[nodiscard]] double snapshotTimerSeconds();

// Returns when a signal has come. If the run can't wait for one, it returns at once, logs why, and
// marks the end as failed. `onEnd` is called after the wait, before the clean-up.
void waitForStop(void (*onEnd)());
