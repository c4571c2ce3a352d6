// What the public headers need to be read as C11 and as C++17 alike. All calls have C linkage.
//
// PELMO_NODISCARD is put before a call whose answer must be looked at; PELMO_UNDERLYING names the
// type of an enumeration where the language can say it; PELMO_INITIAL gives a member its first
// value in C++. In C, such a member gets what the structure is initialised with.

#pragma once

#ifdef __cplusplus
#define PELMO_NODISCARD [[nodiscard]]
#define PELMO_UNDERLYING(type) : type
#define PELMO_INITIAL(value) = value
#else
#include <stdbool.h>
#define PELMO_NODISCARD
#define PELMO_UNDERLYING(type)
#define PELMO_INITIAL(value)
#endif
