// Date-times in UTC: the calendar fields, the text, and the two stamps of a log line.
//
// The calendar is the Gregorian one, carried back before its time and without a year 0: year -1
// comes before year 1.
//
// Threads: any.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/date_time.h"

// The size of the longest stamp, with the terminator.
inline constexpr size_t kTimeStampBytes = 64;

void dateTimeSplit(int64_t seconds,
                   int64_t* year,
                   int32_t* month,
                   int32_t* day,
                   int32_t* hour,
                   int32_t* minute,
                   int32_t* second);

// Writes "2024-02-29 23:59:59Z", or "2024-02-29 23:59:59.001000000Z" where the nanoseconds aren't
// 0, at *cursor, at most sizeBytes with the terminator, and moves *cursor onto the terminator. A
// text that is cut, or that leaves no room for it, has no "Z". With a size of 0 it does nothing.
void dateTimeToText(const pelmoMsgDateTime& value, char** cursor, size_t sizeBytes);

// The present time; returns 0.
uint32_t dateTimeNow(pelmoMsgDateTime* out);

// The present time as text, each kTimeStampBytes: localText like timeText, utcText like
// dateTimeToText. Either may be null. Returns 0.
uint32_t timeStampTexts(char* localText, char* utcText);
