// One packet on its way through the checks of its handler. A fault is counted by its kind, logged
// with "-complain" only, and marks the packet bad. It changes nothing else: a bad packet is counted
// like a good one, and once as bad besides, however many faults it has.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>

#include "trace/counts/faults.h"
#include "trace/packets/oska.h"

struct Inspection {
    const OskaPacket& packet;
    const char* word;  // what messages call this type of packet
    bool bad;
};

// Counts the fault for the packet that is being classified, and logs it with "-complain". What
// follows is what the fault's format wants, one call for each shape; without "-complain" nothing is
// formatted.
[[gnu::cold]] void complain(Fault fault, uint32_t srcIp);
[[gnu::cold]] void complain(Fault fault, uint32_t srcIp, int type);
[[gnu::cold]] void complain(Fault fault, uint32_t srcIp, const char* word);
[[gnu::cold]] void complain(Fault fault, uint32_t srcIp, const char* word, const char* header);
[[gnu::cold]] void complain(Fault fault, uint32_t srcIp, const char* word, int length);
[[gnu::cold]] void complain(Fault fault, uint32_t srcIp, const char* word, uint32_t address);
[[gnu::cold]] void complain(
    Fault fault, uint32_t srcIp, const char* word, uint32_t address, uint32_t ipAddress);

// Is the type's header in hand? Where the capture cut it off, the sender is not at fault; anywhere
// else the fault is logged and the packet is bad.
[[nodiscard]] bool headerInHand(Inspection& inspection, const char* headerWord, size_t headerBytes);

// The sender's own address may be neither 0.0.0.0 nor 255.255.255.255.
void checkSrc(Inspection& inspection);

// The destination in the packet's own header. Which of the three rules holds depends on the type.
void checkDstGroup(Inspection& inspection);   // 0.0.0.0 or a multicast address
void checkDstHost(Inspection& inspection);    // neither 0.0.0.0 nor 255.255.255.255
void checkDstSameIp(Inspection& inspection);  // the address in the IP header

// Reads and checks how many data bytes follow the header: the signed 16-bit word at offset 28. A
// length that isn't positive gives 0. A length that runs past the capture's cut can't be checked
// and is believed.
[[nodiscard]] uint32_t checkDataLength(Inspection& inspection);

// "a.b.c.d" of a word in network order. The text lies in one static buffer and is valid until the
// next call. Only the lines about faults need it, on the thread that takes packets.
[[nodiscard]] const char* ipToText(uint32_t address);
