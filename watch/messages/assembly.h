// From packets of the bus to the messages in them, in order: each sender's numbers are followed, as
// the statistics follow them, and a message that runs on into the sender's next packets is put
// together.
//
//     packet 7, fragment 1   | message | message | begin of a long one |
//     packet 8, fragment 2   | middle                                  |
//     packet 9, fragment 3   | end |                 -> handed on with packet 9
//
// Where a part is missing, or the capture has cut it, what there is of the message is handed on as
// incomplete; so is the rest of a packet after a message with a wrong head, whose end isn't known.
//
// Memory is bounded: for each sender one message, of kAssemblyMostMessageBytes at most; for all
// together `mostBytes`, and then the oldest goes, as incomplete; `mostSenders` senders, and then
// the one that has been silent longest is forgotten.
//
// A core without input and output: packets in, messages out. It owns copies of what waits. Bytes
// that are handed on are borrowed for the call.
//
// Threads: one.

#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <span>
#include <unordered_map>
#include <vector>

#include "lib/base/clock.h"

inline constexpr size_t kAssemblyMostMessageBytes = 64 << 20;

// A packet of the bus. What the headers say of its size holds for the bytes in hand.
struct BusPacket {
    TimeSpec time;
    uint32_t srcIp, dstIp;  // network order, as in the analysis
    uint16_t srcPort;       // the SCid, 0 for none
    uint16_t dstPort;
    int16_t type;
    uint32_t epoch, number;
    uint16_t fragment;
    bool isComplete;  // false where the capture cut the datagram
    std::span<const uint8_t> payload;
};

// Reads the packet from its IP header on. False where it isn't the bus's, or too short for the
// header of its type. One that the capture has cut within that is whole up to its number.
[[nodiscard]] bool busPacketRead(TimeSpec time, std::span<const uint8_t> ip, BusPacket* out);

enum class Incomplete : uint8_t {
    kNo,
    kPartMissing,  // a packet of the sender is not in the capture
    kCut,          // the capture kept only the beginning of a packet
    kRunsOver,     // it claims more bytes than its packet has
    kNoMessage,    // no message's head is where one should be
    kForgotten,    // it waited for its end for too long, or was too large
};

struct AssembledMessage {
    const BusPacket* packet;         // the one that ended it: its time and number
    std::span<const uint8_t> bytes;  // what there is of it
    uint64_t wantedBytes;            // by its own head; 0 where that is unknown
    Incomplete incomplete;
    bool isRepeated;
};

struct AssemblyKey {
    uint32_t srcIp, dstIp;
    uint16_t srcPort, dstPort;

    bool operator==(const AssemblyKey&) const = default;
};

struct AssemblyKeyHash {
    size_t operator()(const AssemblyKey& key) const;
};

struct AssemblySender {
    AssemblyKey key;
    uint32_t epoch = 0;
    uint32_t lastNumber = 0;
    bool isKnown = false;

    // The message that runs on, and its place among those that do. 0 wanted bytes: none does.
    std::vector<uint8_t> begun;
    uint64_t wantedBytes = 0;
    std::list<AssemblySender*>::iterator turn = {};
    uint32_t nextNumber = 0;
    BusPacket last = {};  // without its payload
};

struct Assembly {
    void (*handOn)(const AssembledMessage& message, void* context) = nullptr;
    void* context = nullptr;
    bool wantsRepeats = false;
    size_t mostBytes = 256 << 20;
    size_t mostSenders = 1 << 18;

    // Least recently heard first.
    std::list<AssemblySender> senders;
    std::unordered_map<AssemblyKey, std::list<AssemblySender>::iterator, AssemblyKeyHash> byKey;

    // Those of whom a message runs on, in the same order.
    std::list<AssemblySender*> begun;
    size_t begunBytes = 0;
};

void assemblyTake(Assembly& assembly, const BusPacket& packet);

// Hands on what still waits, as incomplete.
void assemblyEnd(Assembly& assembly);
