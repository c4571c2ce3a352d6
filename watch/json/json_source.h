// What is watched, as JSON:
//
//     {"host":"gw1","interface":"eth0","files":null,"filter":"udp","since_time":...,
//      "interval_seconds":10,"is_paced":false,"state":"live","state_time":...,"words":"live",
//      "reason":null}
//
// Live `files` is null, else `interface` is. docs/pelmowatch-source.schema.json has all members.
//
// Failure: JsonBuffer::failed.
//
// Threads: any, after watchedBegin.

#pragma once

#include "watch/json/json_buffer.h"

// Appends the object without a line break. `isPaced`: a saved capture is read at its own pace.
void jsonAppendSource(JsonBuffer& buffer, double intervalSeconds, bool isPaced);
