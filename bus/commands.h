// The commands, one row each, and the functions that run them.

#pragma once

#include <cstdint>
#include <span>

#include "bus/settings.h"

// Which options a command has; a bit each. Options of the connection come before the command.
enum CommandGroup : uint32_t {
    kForConnection = 1,
    kForListen = 2,
    kForSend = 4,
    kForRequest = 8,
    kForAnswer = 16,
    kForCircuit = 32,
    kForBenchSend = 64,
    kForBenchRequest = 128,
    kForBenchListen = 256,
};

struct Command {
    const char* name;
    const char* second;     // its second word, or null
    const char* arguments;  // for the usage text
    uint32_t group;
    size_t leastSubjects;
    size_t mostSubjects;
    bool takesFields;  // after the subjects
    const char* usage;
    ExitStatus (*run)(const BusSettings& settings);

    // Null, or what is wrong with the settings that options and arguments gave, each of them right.
    const char* (*check)(const BusSettings& settings);
};

[[nodiscard]] std::span<const Command> commandsAll();

// What the commands do. Each connects, does its work, ends in order and has reported any failure.

// A listener on each subject; each message is a line.
[[nodiscard]] ExitStatus runListen(const BusSettings& settings);

// Messages of fields, or of the lines of the standard input, at a rate or as fast as it goes.
[[nodiscard]] ExitStatus runSend(const BusSettings& settings);

// Requests, one after the other, up to the first without an answer. Prints the answers.
[[nodiscard]] ExitStatus runRequest(const BusSettings& settings);

// Listens, and answers each message that has a reply subject. An answer that can't be sent is
// reported, and the next one is tried all the same: who asked may have gone.
[[nodiscard]] ExitStatus runAnswer(const BusSettings& settings);

// The two ends of a circuit. The accepting end answers requests on the subject with its connect
// subject until it is connected. Each line of the input then goes to the other end, whose messages
// are printed: to the end of the input at the connecting end, to that of the circuit at the
// accepting one.
[[nodiscard]] ExitStatus runCircuitAccept(const BusSettings& settings);
[[nodiscard]] ExitStatus runCircuitConnect(const BusSettings& settings);

// How fast messages are sent, come in, are answered. Over the intra-process transport the other end
// is in this process too.
[[nodiscard]] ExitStatus runBenchSend(const BusSettings& settings);
[[nodiscard]] ExitStatus runBenchRequest(const BusSettings& settings);
[[nodiscard]] ExitStatus runBenchListen(const BusSettings& settings);
