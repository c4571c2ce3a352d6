// Counts the calls of Lock_Enter, each thread its own. For programs whose linker sends these calls
// here (tests/CMakeLists.txt).

#pragma once

#include <cstddef>

[[nodiscard]] size_t locksEntered();
