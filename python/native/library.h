// The library's life within a process of Python's: open from the first use until the interpreter
// ends, and never used in a child that was forked while it was open.
//
// Threads: with the interpreter's lock.

#pragma once

#include <Python.h>

// Opens the library if it isn't. Raises what the open answered, and RuntimeError in a forked child
// and after the end.
void libraryNeed();

// Is the library gone for this process, so that objects of it must be left as they are?
[[nodiscard]] bool libraryIsLost();

// Waits for what was sent, without the interpreter's lock. Nothing can be opened afterwards.
void libraryEnd();

// Takes the interpreter's lock again after PyEval_SaveThread. A thread that comes when the
// interpreter has ended stays here for good: otherwise Python would end it by unwinding, and
// objects on the way would be released without the lock.
void libraryEnterPython(PyThreadState* thread);

// In the child, after a fork.
void libraryForked();
