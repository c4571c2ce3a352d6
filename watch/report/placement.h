// Placing the output: the last step of a program that root started. A finished file gets its name
// in a folder that only root may write to, when the program that wrote it is root no longer.
//
// So the step is left to a process of its own, forked while the rights are still there. It reads
// nothing but one byte of the program, does the step, answers with its error, and ends. It ends as
// well when the program does, and then does the step for a file that isn't whole. Where the program
// has no more rights than it keeps, there is no such process, and the program does the step itself.
//
// Threads: the main one. placementStart is called before there are others.

#pragma once

// The step. `isWhole`: the file is finished and gets its name; else what is left of it goes.
// Returns 0 or an error of the system.
using PlaceOutput = int (*)(bool isWhole);

// False with errno, where the process can't be made.
[[nodiscard]] bool placementStart(PlaceOutput place);

// Does the step, once; a later call returns 0. EPIPE where the process has gone without an answer.
[[nodiscard]] int placementAsk(bool isWhole);
