// Ids of the objects that are always there while the library is open.

#pragma once

#include <stdint.h>

#include "../base/language.h"

#ifdef __cplusplus
extern "C" {
#endif

// The first is the id of no object.
#ifdef __cplusplus
inline constexpr uint32_t kNoId = 0;
inline constexpr uint32_t kDefaultQueueId = 1;
inline constexpr uint32_t kIntraProcessTransportId = 10;
#else
enum { kNoId = 0, kDefaultQueueId = 1, kIntraProcessTransportId = 10 };
#endif

#ifdef __cplusplus
}
#endif
