// The log: the one text output that all parts share. A line is a time stamp, the program's name,
// for tracing a module and a thread number, and the caller's text:
//
//     2024-02-29 23:59:59 pelmoscope: startup aborted: Invalid argument.
//
// and, with tracing on:
//
//     2024-02-29 22:59:59.123000000Z pelmoscope: [queue][71]: pelmoQueue_Create
//
// Lines go to the standard error stream until a file is open, and again after it was closed. A text
// that ends in a line break leaves an empty line after it.
//
// The file is kept within a limit: a line that takes it there, or whatever else was written to it,
// moves it aside as a numbered file (lib/base/numbered_ring.h), and a new one begins with the
// header. The limit is a trigger, not a cap. Only a regular file rotates.
//
// Failure: a line that can't be written is lost, and lines stay whole (lib/base/text_sink.h). When
// the file can no longer be written, the standard error stream gets one line about it; when it can
// be written again, one line in the file says how many were lost. Where a rotation can't rename the
// file, the file is emptied; where it can't open it again, lines go to the standard error stream
// and each further limit's worth of text tries again. The standard error stream gets a line about
// both.
//
// Threads: any, at any time, with any lock held. A line is written whole. Nothing is called back
// but the hook. The stream of a file stays the same, and valid, through all rotations to the end of
// the process, so that a thread may write to it while others log; after logClose such text is
// discarded.

#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "lib/base/status.h"

[[gnu::format(printf, 1, 2)]] void logPrint(const char* format, ...);

// A line with the module's name and the calling thread's number in it.
[[gnu::format(printf, 2, 0)]] void logPrintModule(const char* module,
                                                  const char* format,
                                                  va_list arguments);

// Opens the file for appending, beginning with the header; without a path the log stays where it
// is. The file rotates at limitBytes (0: never) over `rotations` numbered files (0: it starts over,
// in place). Path and header may be null and are copied; the header is printed as it is, not as a
// format. Without memory for the copy there is no header.
//
// kStatusInitFailed where the file can't be opened or its path not be resolved: a line on the
// standard error stream says which, and the log is closed.
[[nodiscard]] pelmoStatus logOpen(const char* path,
                                  uint32_t limitBytes,
                                  int32_t rotations,
                                  const char* header);

// Back to the standard error stream, no limit, no header. Closes only the file that logOpen opened:
// a stream from logSetStream belongs to its caller.
void logClose();

// Not copied: must outlive the log. "PM" until then.
void logSetProgramName(const char* name);

// Sends lines to the stream, which the caller keeps open until it sets another, or null for the
// standard error stream. A file of logOpen stays open meanwhile, and doesn't rotate.
void logSetStream(FILE* stream);

// The stream that lines go to; null if there is none yet. For callers that write to it directly.
[[nodiscard]] FILE* logStreamGet();

// For callers that wrote to the stream directly: rotates the file if it is full, and reports lost
// text.
void logCheckRotation();

// Lines go to the hook and nowhere else while there is one, without time stamp and program name. It
// runs with the log's lock held, so it may not log, nor call what does. On return no call of the
// former hook runs. Null: none.
using LogHook = void (*)(const char* line, void* closure);
void logSetHook(LogHook hook, void* closure);

// Lines wait for the reader of a pipe, a socket or a terminal. For the end of the process: after
// this many seconds lines no longer wait and are lost. Infinity lifts the bound.
void logBoundWaits(double seconds);

// Was a line lost since the process began, or text that others wrote to the file's stream?
[[nodiscard]] bool logHasLoss();

// The UTC stamp with fractions in place of the local one.
void logSetUtcStamp(bool utc);

// Do sockets (lib/transport/socket/socket.h) log their events? For debugging sockets; nothing in
// the library switches it on.
void logSetSocketLines(bool on);
[[nodiscard]] bool logWantsSocketLines();
