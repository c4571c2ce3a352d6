// The commands, one row each.

#pragma once

#include <cstdint>
#include <span>

#include "bus/settings.h"

// Which options a command has; a bit each. Options of the connection stand ahead of the command.
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
    bool takesFields;  // behind the subjects
    const char* usage;
    ExitStatus (*run)(const BusSettings& settings);

    // Null, or what is wrong with the settings that options and arguments gave, each of them right.
    const char* (*check)(const BusSettings& settings);
};

[[nodiscard]] std::span<const Command> commandsAll();
