// OSKA, the datagram protocol of the bus: the header that all its packets share, directly after the
// UDP header, and what follows it in data and null packets. Big-endian throughout.
//
//     0       4       8       12      16     18     20      24
//     | magic |  src  | epoch |  dst  | type |      |  seq  | by type ...
//
//     24      28       30         32
//     |       | length | fragment | messages ...            data: `length` bytes of them
//     | reliability 8             |                         null: an IEEE 754 double, seconds
//
// With the epoch's top bit set, the UDP source port is the sender's SCid; with it clear the sender
// has none. An epoch is one life of a sender: in another one its sequence numbers start again.
//
// `fragment` is 0 where the messages are whole. A message that is longer than a packet goes as
// parts: in packet 1 of them it runs on past the end, packets 2 and above have the rest.

#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t kOskaMagic = 0x88fa6923;
constexpr uint32_t kOskaEpochHasScid = 0x80000000;

constexpr size_t kOskaSrcOffset = 4;
constexpr size_t kOskaEpochOffset = 8;
constexpr size_t kOskaDstOffset = 12;
constexpr size_t kOskaTypeOffset = 16;
constexpr size_t kOskaSeqOffset = 20;

constexpr size_t kOskaDataLengthOffset = 28;
constexpr size_t kOskaFragmentOffset = 30;
constexpr size_t kOskaReliabilityOffset = 24;
constexpr size_t kOskaDataHeaderBytes = 32;  // of data and null packets

enum OskaType : int16_t {
    kOskaData = 1,
    kOskaRreq = 3,
    kOskaNull = 4,
    kOskaRrej = 5,
    kOskaPtpData = 6,
    kOskaPtpAckme = 7,
    kOskaPtpAck = 8,
    kOskaPtpNak = 9,
};
