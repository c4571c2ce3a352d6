// Retransmission control of the multicast traffic: requests (rreq) and rejects (rrej), counted
// under both hosts of a port.
//
//     0 ... 20          24
//     | start ... 20 | listBytes | list ...      rreq
//     | start ...                |               rrej
//
// The list holds one 4-byte item for each packet that is asked for; its contents aren't read.
//
// Threads: under `statsLock`.

#pragma once

#include "trace/packets/oska.h"

void retransHandle(const OskaPacket& packet);
