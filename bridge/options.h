// The command line of pelmobridge: filled once, read by the bridge, never changed.
//
// Ownership: texts are copies.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/body.h"
#include "bridge/subjects.h"

// What crosses in one direction.
struct BridgeRoute {
    std::string pattern;  // as on the command line, without prefixes
    std::string keptBy;   // the stream, or the durable consumer; empty for plain subjects
};

struct BridgeOptions {
    std::vector<std::string> servers;
    std::string service, network, daemon;
    std::vector<BridgeRoute> fromBus;
    std::vector<BridgeRoute> toBus;
    SubjectMap map;
    BodyForm form = BodyForm::kWire;
    std::string name;   // of this bridge, unlike those of its group
    std::string group;  // its own name where none was given
    bool isGroup = false;
    bool replayOriginal = false;
    std::string credentials, tlsCa, tlsCert, tlsKey;
    uint32_t bufferMegabytes = 64;
    double requestSeconds = 30;
};

// Null options where the line asks for a text, `answer`, or is wrong, `fault` in one line.
[[nodiscard]] std::optional<BridgeOptions> bridgeOptionsRead(std::span<char* const> arguments,
                                                             std::string& answer,
                                                             std::string& fault);
