// What to generate.
//
// Packets depend on these options only: the same options give the same bytes on every machine, in a
// capture and on the wire.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// A part of a whole, from 0 to 1.
struct Share {
    uint32_t perMillion = 0;
};

// From `low` to `high`, both included.
struct Range {
    uint32_t low, high;
};

struct Nanoseconds {
    int64_t count = 0;
};

constexpr int64_t kSecond = 1'000'000'000;  // in nanoseconds

// Before packet number `packet`, counted from 0, the clock jumps by `by`.
struct ClockJump {
    uint64_t packet;
    Nanoseconds by;
};

// A set of rows of a table: bit n is row n.
struct FieldTypeSet {
    uint64_t bits = ~uint64_t{0};
};
struct DamageSet {
    uint64_t bits = ~uint64_t{0};
};

struct GeneratorOptions {
    // The file.
    const char* outFile = nullptr;  // "-" is the standard output stream
    uint64_t count = 1000;          // packets
    uint64_t seed = 1;
    bool bigEndian = false;
    bool nanoseconds = false;
    uint64_t snapLength = 65535;

    // The wire, in place of the file.
    const char* interfaceName = nullptr;
    bool loopback = false;
    uint64_t seconds = 0;  // 0: no limit

    // The clock.
    uint64_t rate = 1000;                        // packets a second
    Nanoseconds start{1'700'000'000'000000000};  // since 1970
    std::vector<ClockJump> jumps;

    // Who sends what to where.
    uint64_t hosts = 10;
    uint64_t perAddress = 1;
    uint64_t nets = 1;
    uint64_t ports = 1;
    uint64_t firstPort = 7500;
    uint64_t subjects = 20;
    Range publishers{1, 1};
    uint64_t services = 0;  // services that a host sends on; 0: decided by the subjects
    uint64_t hostSkew = 1;
    uint64_t subjectSkew = 1;
    Share scids{1'000'000};
    bool roundRobin = false;

    // The shares of packet kinds; the rest is multicast data.
    Share nulls, rreqs, rrejs, ptpData, ptpAckmes, ptpAcks, ptpNaks, nonBus, unknowns;

    // What happens to the sequence numbers of multicast data.
    Share repeats, gaps, restarts, fragments;

    // The shape of data.
    Range payload{300, 300};  // bytes of UDP payload
    Range messages{1, 1};
    uint64_t messageSkew = 1;
    Range messageBytes{0, 0};  // 0: the messages share the payload
    Range fields{3, 6};
    FieldTypeSet types;
    Range elements{3, 5};
    Range elementLength{3, 8};
    Share hostStatus, replies, noSubject;

    // Faults.
    Share damaged, cut;
    DamageSet damage;
    Range cutTo{1, 1500};
};

// Kinds of packets, in the order of the tables.
enum class PacketKind : uint8_t {
    kData,
    kNull,
    kRreq,
    kRrej,
    kPtpData,
    kPtpAckme,
    kPtpAck,
    kPtpNak,
    kNonBus,
    kUnknown,
};
constexpr size_t kPacketKinds = 10;

// The options with the shares of all kinds except data, in that order.
constexpr Share GeneratorOptions::*kKindShares[kPacketKinds - 1] = {
    &GeneratorOptions::nulls,   &GeneratorOptions::rreqs,     &GeneratorOptions::rrejs,
    &GeneratorOptions::ptpData, &GeneratorOptions::ptpAckmes, &GeneratorOptions::ptpAcks,
    &GeneratorOptions::ptpNaks, &GeneratorOptions::nonBus,    &GeneratorOptions::unknowns,
};

constexpr uint64_t kMessagesMax = 64;
constexpr uint64_t kPayloadMax = 32000;

// When packet number `packet` is on the wire, in time since 1970.
[[nodiscard]] Nanoseconds packetTime(const GeneratorOptions& options, uint64_t packet);
