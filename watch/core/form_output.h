// What a form writes to the standard output, and its first failure.
//
// Ownership: an output holds a descriptor of its own of the standard output, from the opening to
// the closing.
//
// Failure: false. The first one is logged, unless the reader went away, which knows it; from then
// on `failed` is set.
//
// Threads: one user at a time, that of the form.

#pragma once

#include <string_view>

#include "lib/base/text_sink.h"

struct FormOutput {
    const char* what;  // "a snapshot": completes "unable to write"
    TextSink sink = {};
    bool failed = false;
};

[[nodiscard]] bool formOutputOpen(FormOutput& output);

// All of the text.
[[nodiscard]] bool formOutputWrite(FormOutput& output, std::string_view text);

// What is to be written can't be made. False.
bool formOutputFail(FormOutput& output, const char* reason);

void formOutputClose(FormOutput& output);
