// The capture file that "-w" asks for: libpcap's file format, written through a buffer of its own.
//
// On the disk it always ends after a whole frame. If the disk takes only a part of the buffer,
// the file is cut back to its last whole frame and the rest waits for room; frames that the buffer
// can't hold meanwhile are lost and counted. A pipe can't be cut back: the rest of the frame that
// it began is what it gets next.
//
// Failure: logged, once when writing fails and once when it works again. A call that saves
// has no result: frames are analysed whether they can be saved or not.
//
// Threads: the callers that save, reopen or close hold `statsLock` while capture runs.
//
// There is one capture file in a process, and its messages name it by `traceSettings.writeFile`.

#pragma once

#include <pcap/pcap.h>

#include <cstdint>

// A new file with the link type and snapshot length of the source; overwrites. "-" is the standard
// output. False if it can't be opened, which is logged.
[[nodiscard]] bool captureFileOpen(pcap_t* source, const char* path);

[[nodiscard]] bool captureFileIsOpen();

// False for pipes and devices, and for "-" and the system's links to open streams such as
// /dev/stdout, whatever these lead to: they must not be moved aside.
[[nodiscard]] bool captureFileIsRegular();

// The bytes saved, those in the buffer included. 0 for what isn't a regular file.
[[nodiscard]] uint64_t captureFileBytes();

// Without an open file nothing is saved; after a reopening that failed the frame counts as lost.
void captureFileSave(const pcap_pkthdr& header, const u_char* bytes);

// Hands the buffer to the system, so that a process that is killed loses none of it. For each
// report; takes `statsLock` itself.
void captureFileFlush();

// Closes the file and begins a new one of the same head. False if that can't be opened, which is
// logged; no file is open then, and the close logs how many frames that cost.
[[nodiscard]] bool captureFileReopen(const char* path);

void captureFileClose();

// Has everything reached the files of this process? Final after the close.
[[nodiscard]] bool captureFileIsComplete();
