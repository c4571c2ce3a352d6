// From the safe text of a subject, as all forms show it (watch/core/text.h), back to the subject.
//
// Threads: any; no state.

#pragma once

#include <cstdint>
#include <string_view>

#include "lib/containers/subject.h"

// False where no subject has this text.
[[nodiscard]] bool subjectFromSafeText(std::string_view text, uint8_t (&packed)[kSubjectMaxBytes]);
