#include "tools/pelmogen/command_line.h"

#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>
#include <variant>

#include "tools/pelmogen/damage.h"
#include "tools/pelmogen/fields.h"
#include "tools/pelmogen/subjects.h"

namespace {

using Options = GeneratorOptions;
using Target = std::variant<std::monostate,
                            bool Options::*,
                            uint64_t Options::*,
                            Share Options::*,
                            Range Options::*,
                            Nanoseconds Options::*,
                            const char * Options::*,
                            std::vector<ClockJump> Options::*,
                            FieldTypeSet Options::*,
                            DamageSet Options::*>;

// A row without a target is the heading of the rows below it.
struct Option {
    const char* name;
    const char* argument;
    Target target;
    uint64_t low, high;  // of counts and ranges
    const char* help;
};

constexpr std::monostate kHeading;
constexpr uint64_t kMany = uint64_t{1} << 40;
constexpr uint64_t kStreamsMax = uint64_t{1} << 26;

const Option kOptions[] = {
    {"The file", "", kHeading, 0, 0, ""},
    {"--out", "FILE", &Options::outFile, 0, 0, "the capture to write; - is the standard output"},
    {"--count", "N", &Options::count, 0, kMany, "packets"},
    {"--seed", "N", &Options::seed, 0, UINT64_MAX, "of all random choices"},
    {"--big-endian", "", &Options::bigEndian, 0, 0, "file headers in big-endian byte order"},
    {"--nano", "", &Options::nanoseconds, 0, 0, "time stamps in nanoseconds"},
    {"--snaplen", "N", &Options::snapLength, 1, 262144, "bytes kept of each packet"},

    {"The wire, in place of the file; each packet is sent at its time", "", kHeading, 0, 0, ""},
    {"--interface", "NAME", &Options::interfaceName, 0, 0,
     "one end of a veth pair, both ends in a network namespace made for it"},
    {"--loopback", "", &Options::loopback, 0, 0, "the loopback; first bytes of addresses are 127"},
    {"--seconds", "N", &Options::seconds, 0, kMany,
     "end by then if --count isn't reached; 0: go on"},

    {"The clock", "", kHeading, 0, 0, ""},
    {"--rate", "N", &Options::rate, 1, 1'000'000'000, "packets a second"},
    {"--start", "S", &Options::start, 0, 0, "time of the first packet, seconds since 1970"},
    {"--jump", "P:S", &Options::jumps, 0, 0, "ahead of packet P the clock moves by S seconds"},

    {"Who sends what to where", "", kHeading, 0, 0, ""},
    {"--hosts", "N", &Options::hosts, 1, 1'000'000, "senders"},
    {"--per-address", "N", &Options::perAddress, 1, 1000, "senders that share an address"},
    {"--nets", "N", &Options::nets, 1, 10'000, "multicast addresses"},
    {"--ports", "N", &Options::ports, 1, 1000, "destination ports"},
    {"--first-port", "N", &Options::firstPort, 1, 60'000, "the lowest of these"},
    {"--subjects", "N", &Options::subjects, 1, 10'000'000, "subjects"},
    {"--publishers", "RANGE", &Options::publishers, 1, 1'000'000,
     "senders of a subject; of a range the low numbers are the frequent ones"},
    {"--services", "N", &Options::services, 0, 1'000'000,
     "services, nets on ports, that a host sends on, each with its own subjects; 0: any"},
    {"--host-skew", "N", &Options::hostSkew, 1, 16,
     "hosts drawn unevenly: host number hosts x u^N for an even u"},
    {"--subject-skew", "N", &Options::subjectSkew, 1, 16, "the same for subjects"},
    {"--scids", "SHARE", &Options::scids, 0, 0, "senders that have a SCid"},
    {"--round-robin", "", &Options::roundRobin, 0, 0, "subjects, and hosts of nulls, in turn"},

    {"Kinds of packets, shares of all; the rest is multicast data", "", kHeading, 0, 0, ""},
    {"--nulls", "SHARE", &Options::nulls, 0, 0, "null"},
    {"--rreqs", "SHARE", &Options::rreqs, 0, 0, "retransmission request"},
    {"--rrejs", "SHARE", &Options::rrejs, 0, 0, "retransmission reject"},
    {"--ptp-data", "SHARE", &Options::ptpData, 0, 0, "point-to-point data"},
    {"--ptp-ackmes", "SHARE", &Options::ptpAckmes, 0, 0, "point-to-point ackme"},
    {"--ptp-acks", "SHARE", &Options::ptpAcks, 0, 0, "point-to-point ack"},
    {"--ptp-naks", "SHARE", &Options::ptpNaks, 0, 0, "point-to-point nak"},
    {"--non-bus", "SHARE", &Options::nonBus, 0, 0, "UDP that isn't the bus's"},
    {"--unknowns", "SHARE", &Options::unknowns, 0, 0, "of no known type"},

    {"Multicast data, shares of it", "", kHeading, 0, 0, ""},
    {"--repeats", "SHARE", &Options::repeats, 0, 0, "sequence number of before"},
    {"--gaps", "SHARE", &Options::gaps, 0, 0, "1 to 4 sequence numbers left out"},
    {"--restarts", "SHARE", &Options::restarts, 0, 0, "new epoch, sequence number 1"},
    {"--fragments", "SHARE", &Options::fragments, 0, 0, "message that runs on in the next packet"},
    {"--host-status", "SHARE", &Options::hostStatus, 0, 0, "host status messages"},

    {"Messages", "", kHeading, 0, 0, ""},
    {"--payload", "RANGE", &Options::payload, 64, kPayloadMax,
     "bytes of UDP payload of data packets, more where a message needs it"},
    {"--messages", "RANGE", &Options::messages, 1, kMessagesMax, "messages a packet"},
    {"--message-skew", "N", &Options::messageSkew, 1, 16, "few more often, as --host-skew has it"},
    {"--message-bytes", "RANGE", &Options::messageBytes, 0, kPayloadMax,
     "bytes of a message, up to the highest --payload together; 0: they share the payload"},
    {"--fields", "RANGE", &Options::fields, 0, 1000, "fields a message, fewer where it's full"},
    {"--types", "NAMES", &Options::types, 0, 0, "types of these fields"},
    {"--elements", "RANGE", &Options::elements, 1, 60, "elements a subject"},
    {"--element-length", "RANGE", &Options::elementLength, 1, 127, "characters an element"},
    {"--replies", "SHARE", &Options::replies, 0, 0, "messages with a reply subject"},
    {"--no-subject", "SHARE", &Options::noSubject, 0, 0, "messages without a subject"},

    {"Faults", "", kHeading, 0, 0, ""},
    {"--damaged", "SHARE", &Options::damaged, 0, 0, "packets of the bus that are damaged"},
    {"--damage", "NAMES", &Options::damage, 0, 0, "the damages to choose from"},
    {"--cut", "SHARE", &Options::cut, 0, 0, "packets that the capture cut short"},
    {"--cut-to", "RANGE", &Options::cutTo, 1, 65535, "bytes left of these"},
};

// The options that "--mix" stands for: all that a bus carries, in about the shares of a real bus.
struct MixRow {
    const char* name;
    const char* text;
};

constexpr MixRow kMix[] = {
    {"--nulls", "0.06"},       {"--rreqs", "0.012"},      {"--rrejs", "0.004"},
    {"--ptp-data", "0.04"},    {"--ptp-ackmes", "0.01"},  {"--ptp-acks", "0.02"},
    {"--ptp-naks", "0.002"},   {"--non-bus", "0.03"},     {"--unknowns", "0.001"},
    {"--repeats", "0.02"},     {"--gaps", "0.002"},       {"--restarts", "0.0002"},
    {"--fragments", "0.005"},  {"--host-status", "0.01"}, {"--replies", "0.02"},
    {"--no-subject", "0.002"}, {"--damaged", "0.002"},    {"--damage", "checksum,no-checksum"},
    {"--hosts", "200"},        {"--scids", "0.9"},        {"--host-skew", "2"},
    {"--nets", "24"},          {"--ports", "4"},          {"--services", "2"},
    {"--subjects", "1000"},    {"--publishers", "4-200"}, {"--subject-skew", "2"},
    {"--messages", "1-8"},     {"--message-skew", "3"},   {"--message-bytes", "60-140"},
    {"--payload", "64-1470"},
};

// Parses a decimal number: "12.5" with 6 places is 12500000. A sign or more places are refused.
std::optional<uint64_t> parseDecimal(std::string_view text, int places) {
    const size_t point = text.find('.');
    std::string digits(text.substr(0, point));
    const std::string_view fraction = point == std::string_view::npos ? "" : text.substr(point + 1);
    if (fraction.size() > static_cast<size_t>(places)) return {};
    digits += fraction;
    digits.append(static_cast<size_t>(places) - fraction.size(), '0');

    uint64_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) return {};
    return value;
}

std::optional<Nanoseconds> parseSeconds(std::string_view text) {
    const bool negative = text.starts_with('-');
    const std::optional<uint64_t> count = parseDecimal(text.substr(negative ? 1 : 0), 9);
    if (!count || *count > uint64_t{UINT32_MAX} * kSecond) return {};
    const auto magnitude = static_cast<int64_t>(*count);
    return Nanoseconds{negative ? -magnitude : magnitude};
}

// Parses comma-separated names of a table's rows, or "all".
template <typename Table>
std::optional<uint64_t> parseNames(std::string_view text, const Table& table) {
    if (text == "all") return ~uint64_t{0};
    uint64_t bits = 0;
    while (true) {
        const size_t comma = text.find(',');
        const std::string_view name = text.substr(0, comma);
        size_t row = 0;
        while (row < table.size() && name != table[row].name) {
            ++row;
        }
        if (row == table.size()) return {};
        bits |= uint64_t{1} << row;
        if (comma == std::string_view::npos) return bits;
        text.remove_prefix(comma + 1);
    }
}

template <typename Table>
std::string joinNames(const Table& table) {
    std::string names;
    for (const auto& row : table) {
        names += names.empty() ? "" : ",";
        names += row.name;
    }
    return names;
}

// There is one overload of `set` for each kind of target; false when the text is invalid.
bool set(const Option&, std::string_view, bool& flag) {
    return flag = true;
}

bool set(const Option& option, std::string_view text, uint64_t& count) {
    const std::optional<uint64_t> value = parseDecimal(text, 0);
    if (!value || text.ends_with('.') || *value < option.low || *value > option.high) return false;
    count = *value;
    return true;
}

bool set(const Option&, std::string_view text, Share& share) {
    const std::optional<uint64_t> value = parseDecimal(text, 6);
    if (!value || *value > 1'000'000) return false;
    share.perMillion = static_cast<uint32_t>(*value);
    return true;
}

bool set(const Option& option, std::string_view text, Range& range) {
    const size_t dash = text.find('-');
    uint64_t low = 0;
    uint64_t high = 0;
    if (!set(option, text.substr(0, dash), low)) return false;
    if (!set(option, dash == std::string_view::npos ? text : text.substr(dash + 1), high)) {
        return false;
    }
    range = {static_cast<uint32_t>(low), static_cast<uint32_t>(high)};
    return low <= high;
}

bool set(const Option&, std::string_view text, Nanoseconds& time) {
    const std::optional<Nanoseconds> value = parseSeconds(text);
    if (!value || value->count < 0) return false;
    time = *value;
    return true;
}

bool set(const Option&, std::string_view text, const char*& value) {
    value = text.data();  // an argument, so it ends in a NUL
    return !text.empty();
}

bool set(const Option&, std::string_view text, std::vector<ClockJump>& jumps) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) return false;
    const std::optional<uint64_t> packet = parseDecimal(text.substr(0, colon), 0);
    const std::optional<Nanoseconds> by = parseSeconds(text.substr(colon + 1));
    if (!packet || !by) return false;
    jumps.push_back({*packet, *by});
    return true;
}

bool set(const Option&, std::string_view text, FieldTypeSet& types) {
    const std::optional<uint64_t> bits = parseNames(text, fieldTypes());
    types.bits = bits.value_or(0);
    return bits.has_value();
}

bool set(const Option&, std::string_view text, DamageSet& damage) {
    const std::optional<uint64_t> bits = parseNames(text, damages());
    damage.bits = bits.value_or(0);
    return bits.has_value();
}

// There is one overload of `show` for each kind of target: it gives the default as `set` would
// accept it.
std::string show(bool) {
    return "";
}

std::string show(uint64_t count) {
    return std::to_string(count);
}

std::string show(Share share) {
    return share.perMillion == 1'000'000 ? "1" : "0";
}

std::string show(Range range) {
    std::string text = std::to_string(range.low);
    if (range.high != range.low) text += "-" + std::to_string(range.high);
    return text;
}

std::string show(Nanoseconds time) {
    return std::to_string(time.count / kSecond);
}

std::string show(const char*) {
    return "";
}

std::string show(const std::vector<ClockJump>&) {
    return "";
}

std::string show(FieldTypeSet) {
    return "all";
}

std::string show(DamageSet) {
    return "all";
}

std::string showDefault(const Option& option) {
    const Options defaults;
    const std::string text = std::visit(
        [&](auto member) {
            if constexpr (std::is_same_v<decltype(member), std::monostate>) {
                return std::string();
            } else {
                return show(defaults.*member);
            }
        },
        option.target);
    return text.empty() ? text : " [" + text + "]";
}

bool setTarget(const Option& option, std::string_view text, Options& options) {
    return std::visit(
        [&](auto member) {
            if constexpr (std::is_same_v<decltype(member), std::monostate>) {
                return false;
            } else {
                return set(option, text, options.*member);
            }
        },
        option.target);
}

const Option* optionFind(std::string_view name) {
    for (const Option& option : kOptions) {
        if (!std::holds_alternative<std::monostate>(option.target) && name == option.name) {
            return &option;
        }
    }
    return nullptr;
}

void setMix(Options& options) {
    for (const MixRow& row : kMix) {
        setTarget(*optionFind(row.name), row.text, options);
    }
}

uint64_t sumOf(std::initializer_list<Share> shares) {
    uint64_t sum = 0;
    for (const Share share : shares) {
        sum += share.perMillion;
    }
    return sum;
}

uint64_t sumOfKinds(const Options& options) {
    uint64_t sum = 0;
    for (const auto share : kKindShares) {
        sum += (options.*share).perMillion;
    }
    return sum;
}

bool clockHolds(const Options& options, uint64_t packet) {
    const int64_t time = packetTime(options, packet).count;
    return time >= 0 && time / kSecond <= int64_t{UINT32_MAX};
}

// A capture file holds seconds from 0 to 2^32 - 1; between jumps the clock only moves forward.
bool clockHoldsThroughout(const Options& options) {
    if (options.count == 0) return true;
    if (options.count / options.rate > UINT32_MAX) return false;
    if (!clockHolds(options, options.count - 1)) return false;
    for (const ClockJump& jump : options.jumps) {
        if (jump.packet >= options.count) continue;
        if (!clockHolds(options, jump.packet)) return false;
        if (jump.packet > 0 && !clockHolds(options, jump.packet - 1)) return false;
    }
    return true;
}

// Checks options against each other; null when all is well.
const char* findConflict(const Options& options) {
    const Options& o = options;
    if ((o.outFile != nullptr) + (o.interfaceName != nullptr) + (o.loopback ? 1 : 0) != 1) {
        return "one of --out, --interface and --loopback is needed";
    }
    if (o.outFile == nullptr && o.cut.perMillion > 0) return "--cut is for captures alone";
    if (sumOfKinds(o) > 1'000'000) return "the shares of the kinds of packets exceed 1";
    if (sumOf({o.repeats, o.gaps, o.restarts}) > 1'000'000) {
        return "--repeats, --gaps and --restarts exceed 1";
    }
    if (o.publishers.high > o.hosts) return "--publishers exceeds --hosts";
    if (o.services > 0 && o.nets * o.ports > o.subjects) return "--services need a subject each";
    if (o.hosts * o.nets * o.ports > kStreamsMax) return "hosts x nets x ports exceed 2^26";
    if (subjectBytesMax(o) > kSendSubjectBytesMax) return "subjects would exceed 200 bytes";
    if (!clockHoldsThroughout(o)) return "the clock leaves what a capture file can hold";
    return nullptr;
}

}  // namespace

ParseResult optionsParse(int argc,
                         char* const* argv,
                         GeneratorOptions& options,
                         std::string& error) {
    bool hasMixPublishers = false;
    for (int i = 1; i < argc; ++i) {
        const char* name = argv[i];
        if (std::strcmp(name, "--help") == 0) return ParseResult::kHelp;
        if (std::strcmp(name, "--mix") == 0) {
            setMix(options);
            hasMixPublishers = true;
            continue;
        }
        if (std::strcmp(name, "--publishers") == 0) hasMixPublishers = false;

        const Option* option = optionFind(name);
        if (option == nullptr) {
            error = std::string("unknown option ") + name;
            return ParseResult::kWrong;
        }
        const bool takesValue = option->argument[0] != '\0';
        if (takesValue && ++i == argc) {
            error = std::string(name) + " needs " + option->argument;
            return ParseResult::kWrong;
        }
        const char* text = takesValue ? argv[i] : "";
        if (!setTarget(*option, text, options)) {
            error = std::string(name) + " can't be " + text;
            return ParseResult::kWrong;
        }
    }
    if (hasMixPublishers) {  // nobody asked for more of them than there are hosts
        options.publishers.high =
            std::min(options.publishers.high, static_cast<uint32_t>(options.hosts));
        options.publishers.low = std::min(options.publishers.low, options.publishers.high);
    }
    if (const char* conflict = findConflict(options)) {
        error = conflict;
        return ParseResult::kWrong;
    }
    return ParseResult::kRun;
}

std::string optionsHelp() {
    std::string help =
        "usage: pelmogen --out FILE | --interface NAME | --loopback [--mix] [options ...]\n"
        "Makes bus traffic, as a capture or live; the same options give the same packets.\n"
        "Live, it prints what was sent, and SIGINT and SIGTERM end it early.\n"
        "SHARE is 0 to 1, six places at most. RANGE is N or N-N. NAMES are comma-separated.\n"
        "Defaults stand in brackets.\n";
    for (const Option& option : kOptions) {
        if (std::holds_alternative<std::monostate>(option.target)) {
            help += std::string("\n") + option.name + ":\n";
            continue;
        }
        std::string left = std::string("  ") + option.name + " " + option.argument;
        left.resize(left.size() < 26 ? 26 : left.size() + 1, ' ');
        help += left + option.help + showDefault(option) + "\n";
    }
    help += "\n--mix stands for these options, a bus's own mix; those behind it override:\n";
    for (size_t row = 0; row < std::size(kMix); ++row) {
        const std::string option = std::string(kMix[row].name) + " " + kMix[row].text;
        help += (row % 3 == 0 ? "  " : "") + option;
        const bool ends = row % 3 == 2 || row + 1 == std::size(kMix);
        help += ends ? "\n" : std::string(option.size() < 30 ? 30 - option.size() : 1, ' ');
    }
    help += "\nTypes: " + joinNames(fieldTypes()) + "\n";
    help += "Damages: " + joinNames(damages()) + "\n";
    return help;
}
