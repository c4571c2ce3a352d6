// Waits for the signal that ends a live run: SIGINT, SIGTERM, or SIGHUP where that wasn't ignored
// at the start.
//
// The handler only writes a byte to a wake-up pair; the first IO thread takes it up and wakes the
// waiter, who also looks four times a second whether a signal came that didn't get through. Where
// the pair breaks and can't be remade, a timer tries again each second, and looks for a signal that
// came meanwhile.
//
//     (void)stopWaitInit(nullptr);
//     const bool signalled = stopWaitRun();
//     stopWaitCleanup();
//
// A second signal is of no effect while the first is being followed; one that comes a second after
// the first, or later, ends the process by itself.
//
// Failure: what making the pair answers, and nothing is armed: stopWaitRun returns at once. So does
// it if a broken pair has no timer either, which is logged.
//
// Threads: one thread inits, runs and cleans up, with the library open. The callback runs on the
// library's threads or the waiting one, with no lock held.

#pragma once

#include "lib/base/status.h"

using StopCallback = void (*)();

// The callback, which may be null, runs once, when the stop is decided.
[[nodiscard]] pelmoStatus stopWaitInit(StopCallback callback);

// Asks for the stop as a signal would. Any thread, armed or not.
void stopWaitAsk();

// Returns when the program is to stop: was it a signal? Signals don't kill from the clean-up on,
// but for those that come a second late: what is open can be closed in peace. A wait that is
// cleaned up can be armed again.
[[nodiscard]] bool stopWaitRun();
void stopWaitCleanup();

// Gives the signals back to the system: another one ends the process, however it hangs.
void stopWaitRelease();
