// Ids of the objects that are always there while the library is open.

#pragma once

#include <cstdint>

inline constexpr uint32_t kNoId = 0;  // the id of no object
inline constexpr uint32_t kDefaultQueueId = 1;
inline constexpr uint32_t kIntraProcessTransportId = 10;
