// The faults of packets: one enumeration, and one table of what each is called. A fault is
// counted here, and any log line about it has its words from here.
//
// A packet has a fault of one kind once at most, but may have several kinds. Most kinds make a
// packet of the bus bad. Those of frames, and kUdpHeaderCut, are found before the sender is known:
// no sender's bad packets count them.
//
// Counts are part of the statistics (trace/counts/statistics.h); each snapshot copies and zeroes
// them.
//
// Threads: no lock but where noted; the owner of the counts serialises. The table is constant.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/clock.h"

// From the outside of a packet to its inside.
enum class Fault : uint8_t {
    kEthernetHeaderCut,
    kIpHeaderCut,
    kUdpHeaderCut,
    kUdpLengthTooLarge,
    kUdpChecksumMissing,
    kUdpChecksumInvalid,
    kHeaderCut,
    kTypeInvalid,
    kSourceInvalid,
    kDestinationInvalid,
    kDestinationMismatch,
    kLengthInvalid,
    kLengthTooLarge,
    kMessageHeaderCut,
    kMessageMagicInvalid,
    kMessageLengthInvalid,
    kMessageLengthTooLarge,
    kMessageFieldInvalid,
    kMessageSubjectInvalid,
};

inline constexpr size_t kFaultKinds = 19;

// Who logs the fault, and around which address.
enum class FaultLine : uint8_t {
    kFrame,    // the frame handler, in a line of its own (TraceSettings::logCutFrames)
    kPacket,   // "<text> from <address>", with "-complain"
    kMessage,  // "Invalid message from <address> - <text>", with "-complain"
};

struct FaultRow {
    Fault fault;
    const char* key;    // for programs: fixed for good
    const char* words;  // for people: what is wrong with the packet
    FaultLine line;
    const char* format;  // of the log's text; the arguments are those of who finds the fault
};

[[nodiscard]] const FaultRow& faultRow(Fault fault);

// Where a frame is in the saved captures: its file, by the number that the program gives it, and
// its number there, counted from 1. Zeros where the program keeps no account of that.
struct FramePlace {
    uint64_t number;
    uint32_t file;
};

// Of the frame that is being taken. Of the thread that takes frames.
extern FramePlace framePlace;

struct FaultyPacket {
    TimeSpec time;  // its own
    FramePlace place;
};

// The packets of an interval with one kind of fault.
struct FaultCount {
    uint64_t packets;
    FaultyPacket first, last;  // of no meaning without any
    uint32_t lastSender;       // an address in network order; 0: none was in hand
};

using FaultCounts = FaultCount[kFaultKinds];

// One more packet, of the frame that is being taken. `time` is its own.
void faultCount(FaultCounts& counts, Fault fault, TimeSpec time, uint32_t sender);
