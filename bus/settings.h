// What the command line asks for: filled once, read by the command, never changed.
//
// Ownership: texts are the arguments themselves, which last as long as the process.

#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "programs/field_kind.h"

enum ExitStatus : int {
    kExitDone = 0,        // also by a signal
    kExitFailed = 1,      // connecting, listening, sending or writing failed
    kExitUsage = 2,       // bad command line
    kExitUnanswered = 3,  // no answer in time, or fewer messages than asked for
};

struct BusSettings {
    // The connection.
    const char* service = nullptr;
    const char* network = nullptr;
    const char* daemon = nullptr;
    bool noResume = false;
    bool local = false;
    const char* description = nullptr;
    const char* http = nullptr;
    bool hidden = false;
    bool noEcho = false;
    std::optional<double> reliabilitySeconds;
    bool batch = false;

    // What the command is about.
    std::vector<const char*> subjects;
    std::vector<TextField> fields;

    // Taking messages in.
    std::optional<uint64_t> count;
    std::optional<double> seconds;
    bool quiet = false;
    bool json = false;  // of what is printed, or of the lines that are sent

    // Sending.
    const char* reply = nullptr;
    std::optional<uint32_t> sizeBytes;  // of the field "pad"
    bool lines = false;
    bool sequence = false;
    bool wait = false;
    double rate = 0;  // messages a second; 0 for as fast as it goes

    // Sending lines that say when they were and on which subject.
    bool pace = false;
    std::optional<double> speed;
    bool original = false;         // at most one of these three
    const char* prefix = nullptr;  // before the subjects that lines name
    const char* to = nullptr;      // in place of them
};
