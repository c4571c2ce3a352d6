// Tracing: the library's own call log. Each public call, and a few points of the message flow,
// write a line to the log; modules are selected when the library opens. It fills the table of
// lib/msg/trace_ops.h, which costs two tests while tracing is off.
//
// The list of modules has items separated by ",": a module's name, which may be shortened, or a
// name, "=", and a subject, wildcards allowed, that limits the module's message lines. The filters
// of several items for one module are combined. Once started, all log lines carry UTC with
// fractions and go to the file that was named: "stderr", "stdout", in small or capital letters, or
// a path, opened for appending.
//
// Failure: kStatusNotFound for an unknown module, kStatusInvalidArgument for an empty item or an
// output that can't be opened, kStatusInvalidSubject, kStatusNoMemory; tracing then stays off, and
// modules listed before the faulty item stay marked.
//
// Threads: any. A line is written under the tracing lock, which is taken after every other lock
// except the log's. Only open and close start and stop tracing.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/msg/trace_ops.h"

struct pelmoMsg;

// Nothing happens when `modules` is null or empty. The banner, printed first, may be null.
[[nodiscard]] pelmoStatus Tracing_Start(const char* modules, const char* file, const char* banner);

// Stops the lines. Modules and filters stay, so another start adds to them. A log that goes to a
// file returns to the standard error stream; one that goes to the standard output stream stays
// there.
void Tracing_Stop();

// Switches all modules off and frees the filters.
void Tracing_Clear();

// Prints the settings to the standard error stream.
void Tracing_Show();

// Writes one line about a message: the formatted text, its send subject, its text. Nothing is
// printed for a subject that the module's filter doesn't match. kStatusInvalidMessage,
// kStatusInvalidSubject, and any status of making the text. Use traceMessage to call it.
[[gnu::format(printf, 3, 4)]] pelmoStatus Trace_Message(TraceModuleId module,
                                                        pelmoMsg* message,
                                                        const char* format,
                                                        ...);

// Does the module's filter match this packed subject? For lines that name a subject and show no
// message. Null, which is no subject, passes only when there is no filter.
[[nodiscard]] bool Tracing_LetsThrough(TraceModuleId module, const uint8_t* subject);

// A macro, so that its arguments aren't evaluated while tracing is off.
#define traceMessage(module, message, ...)                     \
    do {                                                       \
        if (traceWants(module)) [[unlikely]]                   \
            (void)Trace_Message(module, message, __VA_ARGS__); \
    } while (false)
