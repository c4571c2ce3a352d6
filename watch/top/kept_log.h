// The log while the screen has the terminal: lines that would go there are kept, and printed where
// they belong once the terminal is given back. The screen shows the latest.
//
// What is kept is bounded: of more than that the first lines stay, and the latest.
//
// Nothing is kept, and the log left alone, where the standard error stream isn't a terminal.
//
// Threads: begin and end by one thread; the log may be used by any.

#pragma once

#include <cstddef>
#include <string_view>

inline constexpr size_t kKeptLineBytes = 512;

// `wake` is called at each line, with the log's lock held: it may neither log nor lock. False where
// the system refuses.
[[nodiscard]] bool keptLogBegin(void (*wake)());

// Gives the latest line as safe text, once; empty where there is no new one.
std::string_view keptLogLatest(char (&line)[kKeptLineBytes]);

// Prints what was kept; from here on the log goes where it went before. exit() does it too, after
// the handlers that were registered since keptLogBegin.
void keptLogEnd();
