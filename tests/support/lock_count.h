// Counts the calls of Lock_Enter for each thread, in programs that are linked so that these calls
// come here (tests/CMakeLists.txt).

#pragma once

#include <cstddef>

[[nodiscard]] size_t locksEntered();
