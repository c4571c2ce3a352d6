// From a plan to the bytes of a frame.
//
//     0  Ethernet  14
//     14 IP        20, no options
//     34 UDP       8
//     42 payload: the OSKA header and what its type has after it
//
// A packet is made in three steps, so that damage can be done between them: packetFill writes the
// payload, packetSeal the headers with lengths and checksums that agree with it.
//
// Ownership: the draft belongs to the maker, and the next packet overwrites it.

#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "tools/pelmogen/byte_writer.h"
#include "tools/pelmogen/options.h"
#include "tools/pelmogen/subjects.h"
#include "tools/pelmogen/totals.h"
#include "tools/pelmogen/traffic.h"

constexpr size_t kIpOffset = 14;
constexpr size_t kUdpOffset = 34;
constexpr size_t kPayloadOffset = 42;
constexpr size_t kShortHeaderBytes = 24;

constexpr uint16_t kUnknownTypes[] = {0, 2, 10, 0x7fff, 0xffff};

struct PacketDraft {
    PacketPlan plan;
    std::span<uint8_t> frame;  // the whole buffer
    size_t payloadBytes;       // bytes written after kPayloadOffset
    size_t frameBytes;         // size of the whole frame once it is sealed
    size_t subjectOffset;      // in the payload, of the first message's packed subject; 0 for none

    uint8_t* payload() const { return frame.data() + kPayloadOffset; }
};

struct PacketMaker {
    const GeneratorOptions& options;
    SentTotals& totals;  // the maker counts messages and subjects, the caller the rest
    Prng prng;
    SubjectTable subjects;
    std::vector<uint8_t> types;  // rows of fieldTypes to choose from
    std::vector<uint8_t> room;   // of the frame
    std::vector<uint8_t> rest;   // of a message that continues in the next packet
    uint16_t nextIpId;
    PacketDraft draft;
};

// Both must outlive the maker.
[[nodiscard]] PacketMaker packetMakerMake(const GeneratorOptions& options, SentTotals& totals);

void packetFill(PacketMaker& maker, const PacketPlan& plan);
void packetSeal(PacketMaker& maker);

// The size of the OSKA header of a kind; 0 for packets that aren't of the bus.
[[nodiscard]] size_t headerBytesOf(PacketKind kind);
