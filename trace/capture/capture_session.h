// The thin layer over libpcap: sources, filters and the packet loop. No other module calls libpcap,
// but for the head of a capture file (trace/capture/capture_file.h).
//
// Ownership: what the open calls give belongs to the caller. Texts are borrowed for the call.
//
// Failure: told in the log in libpcap's own words; the result says only that it failed.
//
// Threads: opening and filtering on the main thread, ahead of the capture thread.

#pragma once

#include <pcap/pcap.h>

#include <span>
#include <string>

#include "trace/capture/frame.h"

// A full Ethernet frame: what a live source captures of each, and what a capture file should have.
constexpr int kFullFrameBytes = 1518;

// "udp" and the lists in libpcap's language. The values go in as typed.
[[nodiscard]] std::string buildFilter(std::span<const char* const> srcAddrs,
                                      std::span<const char* const> dstAddrs,
                                      std::span<const char* const> ports);

// Without a name, the default device. Null on failure, here and below.
[[nodiscard]] pcap_t* openLive(const char* interfaceName);

// "-" is the standard input. The process has one buffer to read ahead with: one such source is open
// at a time.
[[nodiscard]] pcap_t* openOffline(const char* path);

// A source whose filter failed delivers everything.
[[nodiscard]] bool installFilter(pcap_t* capture, const char* text);

// Hands each frame to frameHandler, until `count` have passed the filter; 0: until the source ends.
void runCaptureLoop(pcap_t* capture, PacketHandler packetHandler, int count);
