// Starting a program that outlives the caller.
//
// The program gets a session and a process group of its own, no descriptor of the caller's, with
// its standard streams on the null device, no blocked signal and no signal ignored. It isn't the
// caller's child, so that its end leaves nothing behind and no wait for any child meets it. The
// system's search finds it.
//
// Failure: false if no process could be made or the program isn't found. How the program ends isn't
// known.
//
// Threads: any.

#pragma once

// `arguments` begins with the program's name and ends with null.
[[nodiscard]] bool launchProgram(const char* const* arguments);

// A daemon that listens as the specification says, and ends when its last client has gone. False
// also for a command line of 1024 bytes or more.
[[nodiscard]] bool launchDaemon(const char* specification);
