// Point-to-point packets: data, ackme, ack and nak, counted under both hosts of a port. Nothing
// follows sequence numbers here, and the payload isn't scanned.
//
//     0 ... 24                    28       30     32
//     | start ... |               | length |      | data ...      data
//     | start ... |                                               ackme, ack, nak
//
// A source without SCid has port 0 while a destination always has its UDP port: one host can have
// a record for each role.
//
// Threads: under `statsLock`.

#pragma once

#include "trace/packets/oska.h"

void ptpHandle(const OskaPacket& packet);
