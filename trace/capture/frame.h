// A frame as it comes from libpcap: saved whatever it is, then stripped to its IP packet.
//
//     0                 6            12          14
//     | destination MAC | source MAC | Ethertype | IP header, 20 bytes ...
//
// Only Ethertype 0x0800 marks an Ethernet header. Any other frame is handed on from
// its first byte, which is how captures of bare IP are read: the link type isn't asked for.
//
// Failure: a frame too small for its headers is counted, logged (TraceSettings::logCutFrames) and
// dropped, after it was saved. One that can't be saved is handled like any other.
//
// Threads: whichever runs the capture loop. Takes `statsLock` around a write or a count, and calls
// the packet handler without it.
//
// The frame's bytes are borrowed from libpcap for the length of the call.

#pragma once

#include <pcap/pcap.h>

#include <cstddef>
#include <cstdint>

#include "lib/base/clock.h"

constexpr size_t kEthertypeOffset = 12;
constexpr size_t kEthernetHeaderBytes = 14;
constexpr uint16_t kEthertypeIp = 0x0800;

// Takes the packet's time stamp and what is in hand of it from the IP header on: 20 bytes or more.
using PacketHandler = void (*)(TimeSpec time, const uint8_t* ip, size_t length);

struct CaptureContext {
    PacketHandler packetHandler;
};

// Finds the IP packet of a frame as described above and hands it on.
void frameAnalyze(const pcap_pkthdr& header, const u_char* bytes, PacketHandler packetHandler);

// What becomes of a frame once it was saved: frameAnalyze, unless a program has set something else
// before the start.
using FrameTaker = void (*)(const pcap_pkthdr& header,
                            const u_char* bytes,
                            PacketHandler packetHandler);
extern FrameTaker frameTaker;

// The callback of pcap_loop; `user` is a CaptureContext.
void frameHandler(u_char* user, const pcap_pkthdr* header, const u_char* bytes);
