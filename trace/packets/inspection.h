// One packet on its way through the checks of its handler. A fault is told once, and only with
// "-complain"; it marks the packet bad and changes nothing else: a bad packet is counted like a
// good one, and as bad besides, once however much is wrong.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>

#include "trace/packets/oska.h"

struct Inspection {
    const OskaPacket& packet;
    const char* word;  // what messages call this type of packet
    bool bad;
};

// Logs "<format ...> from <source address>" with "-complain". Without it nothing is formatted.
[[gnu::format(printf, 2, 3)]] void complain(uint32_t srcIp, const char* format, ...);

// Is the type's header in hand? If not, a cut by the capture is no fault of the sender; anything
// else is told and makes the packet bad.
[[nodiscard]] bool headerInHand(Inspection& inspection, const char* headerWord, size_t headerBytes);

// The sender's own address: neither none nor all.
void checkSrc(Inspection& inspection);

// The destination that the sender wrote down; which of them holds depends on the type.
void checkDstGroup(Inspection& inspection);   // none, or a multicast group
void checkDstHost(Inspection& inspection);    // neither none nor all
void checkDstSameIp(Inspection& inspection);  // what the IP header says

// The data bytes behind the header, from the signed 16-bit word at offset 28: 0 for one that is
// none. A length that runs past the capture's cut can't be checked and is believed.
constexpr size_t kOskaLengthOffset = 28;
constexpr size_t kOskaDataHeaderBytes = 32;
[[nodiscard]] uint32_t checkDataLength(Inspection& inspection);
