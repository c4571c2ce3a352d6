// Options of forms that compare two captures: the run's own, -r, and one that is read before it.
//
//     -r NEW --against OLD                          two captures
//     -r ONE --from 14:00 --to 14:05 --against-from 13:00 --against-to 13:05    two times of one
//
// --from and --to are of -r alone, as --against-from and --against-to are of the other capture.
//
// Threads: start-up only, but for againstName.

#pragma once

#include "watch/core/form.h"

const char* againstStore(const char* value);
const char* againstStoreFrom(const char* value);
const char* againstStoreTo(const char* value);

inline constexpr FormOption kAgainst = {
    {"--against", "FILE...", "compare with these saved captures, the earlier ones"}, againstStore};
inline constexpr FormOption kAgainstFrom = {
    {"--against-from", "TIME", "of those only what is from TIME on; without --against, of -r's"},
    againstStoreFrom};
inline constexpr FormOption kAgainstTo = {
    {"--against-to", "TIME", "of those only what is until TIME"}, againstStoreTo};

// Was any of the three given?
[[nodiscard]] bool againstIsAsked();

// Once all options are stored: null, or what is wrong.
[[nodiscard]] const char* againstSettle();

// What the other capture is called.
[[nodiscard]] const char* againstName();
