// Tracing: the library's own call log. Public calls, and a few points of message flow, write a line
// each through the log, chosen by module when the library opens. Fills the switch of
// lib/msg/trace_ops.h, which costs two tested words while it is off.
//
// The modules' list is items separated by ",": a module's name, which may be shortened, or a name,
// "=", and a subject, wildcards allowed, that limits the module's message lines. Several items of
// one module add up. Once started, all log lines carry UTC with fractions and go to the file that
// was named: "stderr", "stdout", in small or capital letters, or a path, opened for appending.
//
// Failure: kStatusNotFound for an unknown module, kStatusInvalidArgument for an empty item or an
// output that can't be opened, kStatusInvalidSubject, kStatusNoMemory; tracing then stays off, and
// modules handled before the failure stay marked.
//
// Threads: any. A line is written under the tracing lock, which is taken after every other lock but
// the log's. Starting and stopping is for open and close.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/msg/trace_ops.h"

struct pelmoMsg;

// Null or empty modules: nothing happens, whatever the file. The banner, printed first, may be
// null.
[[nodiscard]] pelmoStatus Tracing_Start(const char* modules, const char* file, const char* banner);

// Modules and filters stay, so that another start adds to them.
void Tracing_Stop();

// All modules off, filters freed.
void Tracing_Clear();

// The settings, to the standard error stream.
void Tracing_Show();

// One line about a message: the text of the format, its send subject, its text. Nothing is printed
// for a subject that the module's filter lets through no line for. kStatusInvalidMessage,
// kStatusInvalidSubject, and what making the text answers. Call it by traceMessage.
[[gnu::format(printf, 3, 4)]] pelmoStatus Trace_Message(TraceModuleId module,
                                                        pelmoMsg* message,
                                                        const char* format,
                                                        ...);

// Does the module's filter let lines about this packed subject through? For lines that name a
// subject and show no message. Null, which is no subject, passes only where there is no filter.
[[nodiscard]] bool Tracing_LetsThrough(TraceModuleId module, const uint8_t* subject);

// A macro, so that the arguments are left alone while it is off.
#define traceMessage(module, message, ...)                     \
    do {                                                       \
        if (traceWants(module)) [[unlikely]]                   \
            (void)Trace_Message(module, message, __VA_ARGS__); \
    } while (false)
