// The source of a run: a live interface, or saved captures. Each frame is peeled down to its IP
// packet (watch/capture/peel.h), goes past the filter, and on to the analysis; what isn't the bus's
// is counted by its reason.
//
// The filter's text is libpcap's language. A frame without tags and tunnels is judged as the
// capture has it. Of any other the packet inside is judged, or the frame, where the text has words
// for frames only ("vlan 7", "ether host ...").
//
// Settings: `traceSettings` names the interface, and has the filter and the link's state.
//
// Failure: logged.
//
// Threads: opening, beginning, running offline and reporting on the main thread; live frames come
// on the capture thread; sourceStop, sourceExtent and sourceBlindText are for any; sourceFill is
// for the thread that hands on Snapshots.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lib/base/status.h"
#include "trace/capture/frame.h"
#include "trace/counts/snapshot.h"
#include "watch/capture/capture_set.h"
#include "watch/capture/capture_time.h"
#include "watch/capture/peel.h"

static_assert(kNotReadKinds <= kSnapNotReadKinds);

struct SourceSettings {
    std::vector<std::string> files;  // of a run that isn't live; as captureSetOpen
    std::optional<CaptureTime> from, to;
    bool waitsForInterface = false;  // of a live run: one that isn't there may come

    // Another capture that is read before it, to be compared with it; none without files.
    std::vector<std::string> against;
    std::optional<CaptureTime> againstFrom, againstTo;

    // Takes all packets in place of the analysis, which then counts nothing. May be null.
    PacketHandler takePacket = nullptr;
};
extern SourceSettings sourceSettings;

// With the rights that the source takes: opens what is read, and reads nothing of it.
[[nodiscard]] pelmoStatus sourceOpen();

// What libpcap has against the filter's text; empty where it has nothing.
[[nodiscard]] std::string sourceFilterFault(const char* text);

// Nothing is left out by a filter. Any thread, after the opening.
[[nodiscard]] bool sourceTakesAll();

// Without rights: installs the filter, and finds out what saved captures are, but for pipes, which
// it doesn't wait for. kStatusNotInitialized where none can be read.
[[nodiscard]] pelmoStatus sourceBegin();

// Reads the saved captures to their end, or to sourceStop, and hands on the last Snapshot. False,
// with nothing handed on, where none can be read.
[[nodiscard]] bool sourceRunOffline();
void sourceStop();

// As sourceRunOffline, of the capture that was named to compare with, and before it. Then
// sourceTurn forgets what was counted, of frames and of packets, so that the run's own capture is
// read as if it were the first. False when memory runs out.
[[nodiscard]] bool sourceRunAgainst();
[[nodiscard]] bool sourceTurn();

// From a form's snapshot: is it the other capture's? Main thread.
[[nodiscard]] bool sourceIsAgainst();

// Adds what the source has to say of the interval that ends now.
void sourceFill(SnapSource* out);

// How far the saved captures were read, of both in the run. Any thread.
[[nodiscard]] CaptureExtent sourceExtent();

// The names of the saved captures, in the order of FramePlace::file; none live.
[[nodiscard]] size_t sourceFiles();
[[nodiscard]] const std::string& sourceFileName(uint32_t file);

// "540 frames of link type LINUX_SLL2, none of the bus: 540 not UDP"; empty where a frame was the
// bus's, and where a live source has brought none.
[[nodiscard]] std::string sourceBlindText();

// A saved capture could not be read, or not whole.
[[nodiscard]] bool sourceHasFault();
