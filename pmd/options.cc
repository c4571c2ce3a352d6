#include "pmd/options.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <charconv>
#include <optional>
#include <string_view>

#include "lib/base/bytes.h"
#include "lib/transport/daemon/link_environment.h"
#include "lib/transport/daemon/specification.h"

namespace {

constexpr const char* kLocalAddress = "127.0.0.1";
constexpr uint16_t kDefaultPort = 7500;
constexpr uint64_t kMegabyte = uint64_t{1} << 20;
constexpr uint64_t kMostBacklogMegabytes = 4096;
constexpr uint64_t kLeastMemoryMegabytes = 16;
constexpr uint64_t kMostMemoryMegabytes = 1 << 20;

// Each has an id of 16 bits of its own, and 0 is none.
constexpr uint64_t kMostClients = 60'000;

std::optional<uint64_t> readNumber(std::string_view text, uint64_t least, uint64_t most) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (number < least || number > most) return std::nullopt;
    return number;
}

bool readAddress(std::string_view text, uint32_t& out) {
    in_addr address{};
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) return false;
    out = address.s_addr;
    return true;
}

// A number, or the name of a service.
bool readPort(std::string_view text, const char* protocol, uint16_t& out) {
    if (const auto number = readNumber(text, 1, UINT16_MAX)) {
        out = hostOrder16(static_cast<uint16_t>(*number));
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

// As the argument by which a client names its daemon.
bool storeListen(PmdOptions& options, std::string_view value) {
    const std::string text(value);
    DaemonSpecification specification;
    DaemonAddress found;
    if (text.empty() || specificationParse(&specification, text.c_str()) != kStatusSuccess ||
        specification.isSecure ||
        specificationResolve(&found, specification, linkEnvironment.names) != kStatusSuccess) {
        return false;
    }
    if (specification.namesHost) options.address = found.address;
    options.port = found.port;
    return true;
}

bool storeNoPermanent(PmdOptions& options, std::string_view) {
    options.permanent = false;
    return true;
}

bool storeAsk(PmdOptions& options, std::string_view) {
    options.onlyAsks = true;
    return true;
}

bool storeBacklog(PmdOptions& options, std::string_view value) {
    const auto megabytes = readNumber(value, 1, kMostBacklogMegabytes);
    if (megabytes) options.backlogBytes = *megabytes * kMegabyte;
    return megabytes.has_value();
}

bool storeMemory(PmdOptions& options, std::string_view value) {
    const auto megabytes = readNumber(value, kLeastMemoryMegabytes, kMostMemoryMegabytes);
    if (megabytes) options.memoryBytes = *megabytes * kMegabyte;
    return megabytes.has_value();
}

bool storeMostClients(PmdOptions& options, std::string_view value) {
    const auto number = readNumber(value, 1, kMostClients);
    if (number) options.mostClients = static_cast<uint32_t>(*number);
    return number.has_value();
}

bool storeOska(PmdOptions& options, std::string_view value) {
    const size_t colon = value.find(':');
    if (colon == std::string_view::npos) return false;
    options.oska = true;
    return readAddress(value.substr(0, colon), options.oskaGroup) && isGroup(options.oskaGroup) &&
           readPort(value.substr(colon + 1), "udp", options.oskaPort);
}

bool storeInterface(PmdOptions& options, std::string_view value) {
    return readAddress(value, options.interfaceAddress);
}

struct Option {
    std::string_view name;
    std::string_view valueWord;  // empty for a switch
    const char* help;
    bool (*store)(PmdOptions& options, std::string_view value);
};

constexpr Option kOptions[] = {
    {"-listen", "SPEC", "[ADDRESS:]PORT to wait for clients on; 127.0.0.1:7500", storeListen},
    {"-no-permanent", "", "end a second after the last client, or after a minute without any",
     storeNoPermanent},
    {"--ask-stand-in", "", "ask a stand-in on the port to hand it over, and end", storeAsk},
    {"--client-backlog", "MB", "above which a client that reads too slowly is cut off; 64",
     storeBacklog},
    {"--memory", "MB", "what messages take in all; beyond it the largest client is cut off; 1024",
     storeMemory},
    {"--max-clients", "N", "more are refused; 1000", storeMostClients},
    {"--oska", "GROUP:PORT", "put all that is routed on the wire as well, as multicast packets",
     storeOska},
    {"--interface", "ADDRESS", "of the interface that these packets leave by", storeInterface},
};

std::string_view withoutDashes(std::string_view name) {
    if (name.starts_with("--")) return name.substr(2);
    return name.starts_with("-") ? name.substr(1) : std::string_view();
}

const Option* findOption(std::string_view name) {
    const std::string_view bare = withoutDashes(name);
    if (bare.empty()) return nullptr;
    for (const Option& option : kOptions) {
        if (bare == withoutDashes(option.name)) return &option;
    }
    return nullptr;
}

PmdParse wrong(std::string& error, std::string text) {
    error = std::move(text);
    return PmdParse::kWrong;
}

// One option with its value; `at` stays on the last word that was used.
PmdParse readOption(std::span<char* const> arguments,
                    size_t& at,
                    PmdOptions& options,
                    std::string& error) {
    const std::string_view word = arguments[at];
    const size_t equals = word.find('=');
    const std::string_view name = word.substr(0, equals);
    const Option* const option = findOption(name);
    if (option == nullptr) return wrong(error, "unknown option " + std::string(word));

    std::string_view value;
    if (option->valueWord.empty()) {
        if (equals != std::string_view::npos) {
            return wrong(error, std::string(word) + ": " + std::string(name) + " takes no value");
        }
    } else if (equals != std::string_view::npos) {
        value = word.substr(equals + 1);
    } else if (++at < arguments.size()) {
        value = arguments[at];
    } else {
        return wrong(error, std::string(name) + " needs " + std::string(option->valueWord));
    }
    if (option->store(options, value)) return PmdParse::kRun;
    return wrong(error, std::string(name) + " can't be " + std::string(value));
}

}  // namespace

PmdParse pmdOptionsRead(std::span<char* const> arguments, PmdOptions& options, std::string& error) {
    (void)readAddress(kLocalAddress, options.address);
    options.port = hostOrder16(kDefaultPort);
    for (size_t at = 0; at < arguments.size(); ++at) {
        const std::string_view bare = withoutDashes(arguments[at]);
        if (bare == "help") return PmdParse::kHelp;
        if (bare == "version") return PmdParse::kVersion;
        if (readOption(arguments, at, options, error) == PmdParse::kWrong) return PmdParse::kWrong;
    }
    if (options.interfaceAddress != 0 && !options.oska) {
        return wrong(error, "--interface is of no use without --oska");
    }
    return PmdParse::kRun;
}

std::string pmdOptionsHelp() {
    std::string help =
        "usage: pmd [-listen SPEC] [-no-permanent] [OPTION...]\n"
        "A bus daemon for one machine: clients of the library meet in it.\n\n";
    for (const Option& option : kOptions) {
        std::string left = "  " + std::string(option.name);
        if (!option.valueWord.empty()) left += " " + std::string(option.valueWord);
        left.resize(left.size() < 26 ? 26 : left.size() + 1, ' ');
        help += left + option.help + "\n";
    }
    return help + "  --help                  this text\n  --version               the version\n";
}
