// Lines of the standard input, read without being held up: a signal ends the wait for them.
//
// A line ends in a line break, which isn't part of it; the last one may be without.
//
// Failure: a line of more than kMostLineBytes, and a read that fails.
//
// Threads: one user at a time.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

constexpr size_t kMostLineBytes = size_t{64} << 20;

struct LineInput {
    int descriptor = 0;
    std::string buffer;
    size_t begin = 0;     // where the next line begins in it
    size_t searched = 0;  // no line break from there up to here
    bool ended = false;
    uint64_t lineNumber = 0;  // of the line read last, from 1
};

enum class LineResult {
    kLine,
    kNone,  // none is there yet
    kEnd,
    kStopped,
    kTooLong,
    kFailed,  // errno has the cause
};

// `line` is good until the next call. With `mayWait` kNone isn't answered.
[[nodiscard]] LineResult lineInputNext(LineInput& input, bool mayWait, std::string_view& line);
