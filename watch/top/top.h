// The form "top": a full screen in the terminal.
//
// The screen has a thread of its own, which reads keys, draws, and waits for the terminal, so that
// a slow one holds up neither the capture nor the reading of a file. Intervals come on the threads
// that hand on Snapshots (watch/core/form.h); a lock guards the model between them.

#pragma once

#include "watch/core/form.h"

extern const Form kTopForm;
