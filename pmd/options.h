// The command line of pmd: one table has the options; parser and help both come from it.
//
// `-listen` and `-no-permanent` are listed with one dash, as a client that starts a daemon types
// them.
//
// Units: addresses and ports in network byte order.

#pragma once

#include <cstdint>
#include <span>
#include <string>

struct PmdOptions {
    // Where clients connect.
    uint32_t address;
    uint16_t port;

    bool permanent = true;
    bool onlyAsks = false;                       // asks a stand-in for its port, and ends
    uint64_t backlogBytes = uint64_t{64} << 20;  // that may wait for one client
    uint64_t memoryBytes = uint64_t{1} << 30;    // of all backlogs and unfinished messages
    uint32_t mostClients = 1000;

    // What is routed, on the wire.
    bool oska = false;
    uint32_t oskaGroup = 0;
    uint16_t oskaPort = 0;
    uint32_t interfaceAddress = 0;  // 0: the system's choice
};

enum class PmdParse : uint8_t { kRun, kHelp, kVersion, kWrong };

// `arguments` without the program's name. `error` is set with kWrong, to one line that has the
// wrong word.
[[nodiscard]] PmdParse pmdOptionsRead(std::span<char* const> arguments,
                                      PmdOptions& options,
                                      std::string& error);

[[nodiscard]] std::string pmdOptionsHelp();
