#include "bridge/options.h"

#include <unistd.h>

#include <cmath>
#include <string_view>

#include "programs/number.h"
#include "programs/option_table.h"

namespace {

constexpr uint32_t kMostBufferMegabytes = 1 << 16;
constexpr double kMostRequestSeconds = 3600;
constexpr size_t kHelpWidth = 30;

// What is read, with the routes that "--stream" and "--durable" belong to.
struct Reading {
    BridgeOptions options = {};
    BridgeRoute* lastFrom = nullptr;
    BridgeRoute* lastTo = nullptr;
};

// How options store their values: null, or what is wrong with one.

template <auto kMember>
const char* setText(Reading& reading, const char* value) {
    if (*value == '\0') return "is empty";
    reading.options.*kMember = value;
    return nullptr;
}

const char* setServers(Reading& reading, const char* value) {
    for (std::string_view rest = value;;) {
        const size_t comma = rest.find(',');
        const std::string_view server = rest.substr(0, comma);
        if (server.empty()) return "has an empty URL";
        reading.options.servers.emplace_back(server);
        if (comma == std::string_view::npos) return nullptr;
        rest = rest.substr(comma + 1);
    }
}

const char* checkPattern(const char* pattern) {
    std::string bus, nats;
    return subjectPattern({}, pattern, bus, nats) ? nullptr : "isn't a subject that can cross";
}

const char* setFromBus(Reading& reading, const char* value) {
    reading.lastFrom = &reading.options.fromBus.emplace_back(BridgeRoute{value, {}});
    return checkPattern(value);
}

const char* setToBus(Reading& reading, const char* value) {
    reading.lastTo = &reading.options.toBus.emplace_back(BridgeRoute{value, {}});
    return checkPattern(value);
}

const char* keepBy(BridgeRoute* route, const char* value, const char* without) {
    if (route == nullptr) return without;
    if (!route->keptBy.empty()) return "is the second of its route";
    if (!groupNameIsGood(value)) return "needs 1 to 32 letters, digits, \"-\" or \"_\"";
    route->keptBy = value;
    return nullptr;
}

const char* setStream(Reading& reading, const char* value) {
    return keepBy(reading.lastFrom, value, "belongs after a --from-bus");
}

const char* setDurable(Reading& reading, const char* value) {
    return keepBy(reading.lastTo, value, "belongs after a --to-bus");
}

template <std::string SubjectMap::*kMember>
const char* setPrefix(Reading& reading, const char* value) {
    reading.options.map.*kMember = value;
    return subjectPrefixFault(value);
}

const char* setForm(Reading& reading, const char* value) {
    const std::string_view form = value;
    if (form != "wire" && form != "json") return "isn't wire or json";
    reading.options.form = form == "wire" ? BodyForm::kWire : BodyForm::kJson;
    return nullptr;
}

template <std::string BridgeOptions::*kMember>
const char* setName(Reading& reading, const char* value) {
    reading.options.*kMember = value;
    return groupNameIsGood(value) ? nullptr : "needs 1 to 32 letters, digits, \"-\" or \"_\"";
}

const char* setReplay(Reading& reading, const char* value) {
    if (std::string_view(value) != "original" && std::string_view(value) != "instant") {
        return "isn't original or instant";
    }
    reading.options.replayOriginal = std::string_view(value) == "original";
    return nullptr;
}

const char* setBuffer(Reading& reading, const char* value) {
    return numberParse(value, 1, kMostBufferMegabytes, reading.options.bufferMegabytes);
}

const char* setRequestSeconds(Reading& reading, const char* value) {
    double& seconds = reading.options.requestSeconds;
    const char* fault = numberParse(value, seconds);
    if (fault != nullptr) return fault;
    return seconds > 0 && seconds <= kMostRequestSeconds ? nullptr : "out of range";
}

struct Option : OptionRow {
    const char* (*store)(Reading& reading, const char* value);
};

using O = BridgeOptions;

constexpr Option kOptions[] = {
    {{"--nats", "URL[,URL...]", "servers to connect to"}, setServers},
    {{"--service", "TEXT", "service of the traffic on the bus"}, setText<&O::service>},
    {{"--network", "TEXT", "network of the traffic on the bus"}, setText<&O::network>},
    {{"--daemon", "TEXT", "port, or host and port (7500)"}, setText<&O::daemon>},
    {{"--from-bus", "PATTERN", "subjects that go from the bus to NATS"}, setFromBus},
    {{"--stream", "NAME", "keep them in a stream; after --from-bus"}, setStream},
    {{"--to-bus", "PATTERN", "subjects that go from NATS to the bus"}, setToBus},
    {{"--durable", "NAME", "all that a stream has kept; after --to-bus"}, setDurable},
    {{"--format", "wire|json", "form of the bodies that are sent (wire)"}, setForm},
    {{"--prefix-nats", "TEXT", "before all subjects on NATS, such as SITE1."},
     setPrefix<&SubjectMap::natsPrefix>},
    {{"--prefix-bus", "TEXT", "before all subjects on the bus"}, setPrefix<&SubjectMap::busPrefix>},
    {{"--name", "NAME", "of this bridge (host and process)"}, setName<&O::name>},
    {{"--group", "NAME", "of bridges that share the work"}, setName<&O::group>},
    {{"--replay", "original|instant", "pace of what a stream has kept (instant)"}, setReplay},
    {{"--buffer", "MB", "what waits while NATS is away (64)"}, setBuffer},
    {{"--request-timeout", "SECONDS", "how long an answer may take (30)"}, setRequestSeconds},
    {{"--credentials", "FILE", "credentials for NATS"}, setText<&O::credentials>},
    {{"--tls-ca", "FILE", "certificates that the servers' are signed by"}, setText<&O::tlsCa>},
    {{"--tls-cert", "FILE", "this bridge's own certificate"}, setText<&O::tlsCert>},
    {{"--tls-key", "FILE", "its key"}, setText<&O::tlsKey>},
};

std::string usage(const OptionRows& rows) {
    std::string out =
        "usage: pelmobridge --nats URL[,URL...] [OPTION...]\n"
        "                   [--from-bus PATTERN [--stream NAME]]...\n"
        "                   [--to-bus PATTERN [--durable NAME]]...\n\n"
        "Carries messages between a Pelmo message bus and NATS, with JetStream where they are to "
        "be\n"
        "kept.\n\nOptions:\n";
    for (const OptionRow* row : rows) {
        optionHelpAdd(out, *row, kHelpWidth);
    }
    return out;
}

// One NUL at its end, whatever happens.
std::string ownName() {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
    std::string name;
    for (const char character : std::string_view(host)) {
        const bool isGood = groupNameIsGood(std::string_view(&character, 1));
        if (name.size() < kMostGroupBytes / 2) name += isGood ? character : '-';
    }
    return name + "-" + std::to_string(getpid());
}

bool hasOverlap(const std::vector<BridgeRoute>& routes) {
    for (size_t at = 0; at < routes.size(); ++at) {
        for (size_t other = 0; other < at; ++other) {
            if (subjectPatternsOverlap(routes[at].pattern, routes[other].pattern)) return true;
        }
    }
    return false;
}

const char* checkWhole(const BridgeOptions& options) {
    if (options.servers.empty()) return "--nats: missing";
    if (options.fromBus.empty() && options.toBus.empty()) return "--from-bus or --to-bus: missing";
    if (options.tlsCert.empty() != options.tlsKey.empty())
        return "--tls-cert and --tls-key: need each other";
    if (!options.tlsCert.empty() && options.tlsCa.empty()) return "--tls-cert: needs --tls-ca";
    // A message would cross once for each of them.
    if (hasOverlap(options.fromBus)) return "--from-bus: patterns overlap";
    return hasOverlap(options.toBus) ? "--to-bus: patterns overlap" : nullptr;
}

}  // namespace

std::optional<BridgeOptions> bridgeOptionsRead(std::span<char* const> arguments,
                                               std::string& answer,
                                               std::string& fault) {
    OptionRows rows;
    optionRowsAdd(rows, kOptions);
    rows.push_back(&kOptionHelp);
    rows.push_back(&kOptionVersion);
    Reading reading;
    OptionReader reader{.rows = rows, .rest = arguments};
    while (optionNext(reader)) {
        if (reader.row == nullptr) {
            fault = std::string(reader.value) + ": not an option";
            return std::nullopt;
        }
        if (reader.row == &kOptionHelp) return answer = usage(rows), std::nullopt;
        if (reader.row == &kOptionVersion) return answer = versionText("pelmobridge"), std::nullopt;
        const char* const wrong =
            static_cast<const Option*>(reader.row)->store(reading, reader.value);
        if (wrong != nullptr && !optionRefuse(reader, wrong)) break;
    }
    fault = reader.fault;
    if (!fault.empty()) return std::nullopt;
    if (const char* const lacks = checkWhole(reading.options); lacks != nullptr) {
        return fault = lacks, std::nullopt;
    }
    BridgeOptions& options = reading.options;
    options.isGroup = !options.group.empty();
    if (options.name.empty()) options.name = ownName();
    if (!options.isGroup) options.group = options.name;
    return options;
}
