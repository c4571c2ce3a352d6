// The thin layer over libpcap: sources, filters and the packet loop. No other module calls libpcap,
// but for the head of a capture file (trace/capture/capture_file.h).
//
// Ownership: what the open calls give belongs to the caller. Texts are borrowed for the call.
//
// Failure: logged in libpcap's own words; the result says only that it failed.
//
// Threads: opening and filtering on the main thread, before the capture thread starts.

#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <span>
#include <string>

#include "trace/capture/frame.h"
#include "trace/capture/saved_capture.h"

// A full Ethernet frame: what a live source captures of each, and what a capture file should have.
constexpr int kFullFrameBytes = 1518;

// "udp" and the lists in libpcap's language. The values go in as typed.
[[nodiscard]] std::string buildFilter(std::span<const char* const> srcAddrs,
                                      std::span<const char* const> dstAddrs,
                                      std::span<const char* const> ports);

// The name, or without one that of the default device. Null on failure, here and below.
[[nodiscard]] const char* liveInterface(const char* name);

[[nodiscard]] pcap_t* openLive(const char* interfaceName);

// "-" is the standard input. The process has one buffer to read ahead with: one such source is open
// at a time.
[[nodiscard]] pcap_t* openOffline(const char* path);

// Logs what a saved capture is. Frames that it may have cut short are logged by a call of their
// own.
void describeSavefile(pcap_t* capture);
void warnOfCutFrames(int snapshotBytes);

// What libpcap has against a filter; empty where it has nothing.
[[nodiscard]] std::string filterFault(pcap_t* capture, const char* text);

// Does libpcap compile the filter, or refuse it, in so many seconds of processor time and with room
// left on the stack? Tried in a child process, since nothing can stop it; true where there can be
// none. Only while the process has one thread.
[[nodiscard]] bool filterCompilesInTime(const char* text, unsigned seconds);

// A source whose filter failed delivers everything.
[[nodiscard]] bool installFilter(pcap_t* capture, const char* text);

// The interface of a live source was removed: hands on the frames of it that the system still has,
// which takes a little longer than the time for which it holds them. The capture thread.
void captureDrain(pcap_t* capture, PacketHandler packetHandler);

// The interface of an open live source was removed and made again: captures from the new one. False
// where there is none yet, or none of its kind. Takes no rights.
[[nodiscard]] bool captureAttachAgain(pcap_t* capture, const char* interfaceName);

// Ends the loop of a live source as if the system had said that its interface is gone. Any thread.
void captureDetach(pcap_t* capture);

// Hands each frame to frameHandler, until `count` have passed the filter; 0: until the source ends.
// Null, or libpcap's words for the failure that ended it, valid until its next call.
const char* runCaptureLoop(pcap_t* capture, PacketHandler packetHandler, int count);

// Ends the loop of a saved capture, and all further ones, within a quarter of a second; that is no
// failure. Any thread; it may come before the loop.
void breakCaptureLoop(pcap_t* capture);

// Frames of a live source that were lost since it was opened: for lack of room in the system's
// buffer, and by the interface. The numbers wrap around.
struct CaptureDrops {
    uint32_t kernel, interface;
};

// False if the system doesn't report them. One thread at a time.
[[nodiscard]] bool captureDrops(pcap_t* capture, CaptureDrops* out);
