#include "pmd/options.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <string_view>

#include "lib/base/bytes.h"
#include "lib/transport/daemon/link_environment.h"
#include "lib/transport/daemon/specification.h"
#include "programs/number.h"
#include "programs/option_table.h"

namespace {

constexpr const char* kLocalAddress = "127.0.0.1";
constexpr uint16_t kDefaultPort = 7500;
constexpr uint64_t kMegabyte = uint64_t{1} << 20;
constexpr uint64_t kMostBacklogMegabytes = 4096;
constexpr uint64_t kLeastMemoryMegabytes = 16;
constexpr uint64_t kMostMemoryMegabytes = 1 << 20;

// Each has an id of 16 bits of its own, and 0 is none.
constexpr uint64_t kMostClients = 60'000;

bool readAddress(std::string_view text, uint32_t& out) {
    in_addr address{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) return false;
    out = address.s_addr;
    return true;
}

// A number, or the name of a service.
bool readPort(std::string_view text, const char* protocol, uint16_t& out) {
    uint64_t number = 0;
    if (numberParse(text, 1, UINT16_MAX, number) == nullptr) {
        out = hostOrder16(static_cast<uint16_t>(number));
        return true;
    }
    const servent* const service = getservbyname(std::string(text).c_str(), protocol);
    if (service == nullptr) return false;
    out = static_cast<uint16_t>(service->s_port);
    return true;
}

bool isGroup(uint32_t address) {
    constexpr uint32_t kGroups = 0xe;
    return hostOrder32(address) >> 28 == kGroups;
}

// How options store their values: null, or what is wrong with one. A switch has an empty one.

// The form of the argument by which a client names its daemon.
const char* storeListen(PmdOptions& options, std::string_view value) {
    const std::string text(value);
    DaemonSpecification specification;
    DaemonAddress found;
    if (text.empty() || specificationParse(&specification, text.c_str()) != kStatusSuccess ||
        specification.isSecure ||
        specificationResolve(&found, specification, linkEnvironment.names) != kStatusSuccess) {
        return "not [ADDRESS:]PORT, such as 127.0.0.1:7500";
    }
    if (specification.namesHost) options.address = found.address;
    options.port = found.port;
    return nullptr;
}

const char* storeNoPermanent(PmdOptions& options, std::string_view) {
    options.permanent = false;
    return nullptr;
}

const char* storeAsk(PmdOptions& options, std::string_view) {
    options.onlyAsks = true;
    return nullptr;
}

template <auto kMember, uint64_t kLeast, uint64_t kMost>
const char* storeMegabytes(PmdOptions& options, std::string_view value) {
    uint64_t megabytes = 0;
    const char* const fault = numberParse(value, kLeast, kMost, megabytes);
    if (fault == nullptr) options.*kMember = megabytes * kMegabyte;
    return fault;
}

const char* storeMostClients(PmdOptions& options, std::string_view value) {
    uint64_t number = 0;
    const char* const fault = numberParse(value, 1, kMostClients, number);
    if (fault == nullptr) options.mostClients = static_cast<uint32_t>(number);
    return fault;
}

const char* storeOska(PmdOptions& options, std::string_view value) {
    const size_t colon = value.find(':');
    options.oska = true;
    const bool isGood =
        colon != std::string_view::npos && readAddress(value.substr(0, colon), options.oskaGroup) &&
        isGroup(options.oskaGroup) && readPort(value.substr(colon + 1), "udp", options.oskaPort);
    return isGood ? nullptr : "not GROUP:PORT, such as 239.255.0.1:7500";
}

const char* storeInterface(PmdOptions& options, std::string_view value) {
    return readAddress(value, options.interfaceAddress) ? nullptr
                                                        : "not an address such as 10.1.2.3";
}

using O = PmdOptions;

constexpr auto kStoreBacklog = storeMegabytes<&O::backlogBytes, 1, kMostBacklogMegabytes>;
constexpr auto kStoreMemory =
    storeMegabytes<&O::memoryBytes, kLeastMemoryMegabytes, kMostMemoryMegabytes>;

struct Option : OptionRow {
    const char* (*store)(PmdOptions& options, std::string_view value);
};

constexpr Option kOptions[] = {
    {{"-listen", "SPEC", "[ADDRESS:]PORT to wait for clients on; 127.0.0.1:7500"}, storeListen},
    {{"-no-permanent", nullptr,
      "end a second after the last client, or after a minute without any"},
     storeNoPermanent},
    {{"--ask-stand-in", nullptr, "ask a stand-in on the port to hand it over, and end"}, storeAsk},
    {{"--client-backlog", "MB", "above which a client that reads too slowly is cut off; 64"},
     kStoreBacklog},
    {{"--memory", "MB", "what messages take in all; beyond it the largest client is cut off; 1024"},
     kStoreMemory},
    {{"--max-clients", "N", "more are refused; 1000"}, storeMostClients},
    {{"--oska", "GROUP:PORT", "put all that is routed on the wire as well, as multicast packets"},
     storeOska},
    {{"--interface", "ADDRESS", "of the interface that these packets leave by"}, storeInterface},
};

constexpr size_t kHelpWidth = 23;

PmdParse wrong(std::string& error, std::string text) {
    error = std::move(text);
    return PmdParse::kWrong;
}

}  // namespace

PmdParse pmdOptionsRead(std::span<char* const> arguments, PmdOptions& options, std::string& error) {
    (void)readAddress(kLocalAddress, options.address);
    options.port = hostOrder16(kDefaultPort);
    OptionRows rows = {&kOptionHelp, &kOptionVersion};
    optionRowsAdd(rows, kOptions);
    OptionReader reader{.rows = rows, .rest = arguments};
    while (optionNext(reader)) {
        if (reader.row == nullptr)
            return wrong(error, reader.value + std::string(": not an option"));
        if (reader.row == &kOptionHelp) return PmdParse::kHelp;
        if (reader.row == &kOptionVersion) return PmdParse::kVersion;
        const auto& option = static_cast<const Option&>(*reader.row);
        const std::string_view value = reader.value != nullptr ? reader.value : "";
        const char* const fault = option.store(options, value);
        if (fault != nullptr) optionRefuse(reader, fault);
    }
    if (!reader.fault.empty()) return wrong(error, std::move(reader.fault));
    if (options.interfaceAddress != 0 && !options.oska) {
        return wrong(error, "--interface: needs --oska");
    }
    return PmdParse::kRun;
}

std::string pmdOptionsHelp() {
    std::string help =
        "usage: pmd [-listen SPEC] [-no-permanent] [OPTION...]\n"
        "A bus daemon for one machine: clients of the library meet in it.\n\n";
    for (const Option& option : kOptions) {
        optionHelpAdd(help, option, kHelpWidth);
    }
    optionHelpAdd(help, kOptionHelp, kHelpWidth);
    optionHelpAdd(help, kOptionVersion, kHelpWidth);
    return help +
           "\nSee also: pelmobus, a client for the shell; pelmoscope and pelmowatch, which watch "
           "the "
           "bus.\n";
}
