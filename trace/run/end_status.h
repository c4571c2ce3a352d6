// Whether a run ends normally, which its exit status tells. A run that lost something that it was
// asked to write, or that can't wait for its stop, marks its end; nothing takes a mark back.
//
// The mark is silent: whoever sets it tells the reason.
//
// Threads: any, and signal handlers.

#pragma once

void endMarkFailed();

// 0, or 1 where the end was marked.
[[nodiscard]] int endStatus();
