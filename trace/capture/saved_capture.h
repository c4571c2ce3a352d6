// A saved capture: read ahead in large steps, its frames handed on as they are in the buffer.
//
// libpcap copies each frame out of a stream, by two calls of the C library. Nearly all captures are
// of one plain kind that needs neither copy nor conversion: libpcap's classic format, version 2.4,
// of Ethernet, in this machine's byte order and with microseconds.
//
//     head:    0 magic | 4 version | 8 ... 24
//     record:  0 seconds | 4 microseconds | 8 bytes saved | 12 bytes sent | 16 frame ...
//
// Only whole records of plain captures are taken here. All else is left to libpcap, which reads on
// at the same place: captures of other kinds, records that are cut or too large, the end, and
// faults, for which it has its own words. So the result is what libpcap alone would give.
//
// Ownership: a capture belongs to the caller that opened it. The process has one buffer: one
// capture is open at a time.
//
// Threads: opening and filtering before the loop; one thread runs it.

#pragma once

#include <pcap/pcap.h>

#include <cstdint>

// What pcap_open_offline does. "-" is the standard input.
[[nodiscard]] pcap_t* savedCaptureOpen(const char* path, char* error);

// Behind pcap_setfilter: the same program, and its text, for frames that libpcap doesn't see. Swaps
// it for the one before, which the caller frees.
void savedCaptureSwapFilter(bpf_program& program, const char* text);

// What pcap_loop does for the capture that is open. A frame's bytes are borrowed for the call.
[[nodiscard]] int savedCaptureLoop(int count, pcap_handler handler, u_char* user);

// Lets the reading come to its end wherever it is, for good. Any thread, as the two below.
void savedCaptureBreak();
[[nodiscard]] bool savedCaptureIsBroken();

// How far the capture was read, in steps of up to 256 KiB, and its size by now. Zeros for what is
// no regular file.
struct SavedExtent {
    uint64_t readBytes, fileBytes;
};
[[nodiscard]] SavedExtent savedCaptureExtent();
