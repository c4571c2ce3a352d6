// The socket that OSKA packets leave by (pmd/oska_writer.h).
//
// The kernel leaves the checksums of packets to the hardware, which loopback and virtual interfaces
// don't have: a listener on the same machine would find them all wrong. So each packet is given to
// the kernel in two pieces, which makes it sum up the bytes itself.
//
// Failure: oskaWireOpen gives one line. Packets that the system doesn't take are counted, and the
// log reports them at most once a second.
//
// Threads: the owner serialises all calls.

#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "pmd/options.h"
#include "pmd/oska_writer.h"

struct OskaWire {
    OskaWriter* writer;  // null while it isn't open
    int descriptor;
    uint64_t loggedLeftOut;
};

[[nodiscard]] inline bool oskaWireIsOpen(const OskaWire* wire) {
    return wire->writer != nullptr;
}

[[nodiscard]] bool oskaWireOpen(OskaWire* wire, const PmdOptions& options, std::string& error);

// Nothing happens for one that isn't open.
void oskaWireClose(OskaWire* wire);

void oskaWireAdd(OskaWire* wire, std::span<const uint8_t> message, double now);
void oskaWireFlush(OskaWire* wire, double now);
void oskaWireTick(OskaWire* wire, double now);
