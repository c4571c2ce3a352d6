#include "tools/pelmogen/command_line.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <variant>

#include "programs/number.h"
#include "programs/option_table.h"
#include "tools/pelmogen/damage.h"
#include "tools/pelmogen/fields.h"
#include "tools/pelmogen/subjects.h"

namespace {

using Options = GeneratorOptions;
using Target = std::variant<bool Options::*,
                            uint64_t Options::*,
                            Share Options::*,
                            Range Options::*,
                            Nanoseconds Options::*,
                            const char * Options::*,
                            std::vector<ClockJump> Options::*,
                            FieldTypeSet Options::*,
                            DamageSet Options::*>;

struct Option : OptionRow {
    Target target;
    uint64_t low = 0, high = 0;     // of counts and ranges
    const char* heading = nullptr;  // above this row
};

constexpr uint64_t kMany = uint64_t{1} << 40;
constexpr uint64_t kStreamsMax = uint64_t{1} << 26;

const Option kOptions[] = {
    {{"--out", "FILE", "the capture to write; - is the standard output"},
     &Options::outFile,
     0,
     0,
     "The file"},
    {{"--count", "N", "packets"}, &Options::count, 0, kMany},
    {{"--seed", "N", "of all random choices"}, &Options::seed, 0, UINT64_MAX},
    {{"--big-endian", nullptr, "file headers in big-endian byte order"}, &Options::bigEndian},
    {{"--nano", nullptr, "time stamps in nanoseconds"}, &Options::nanoseconds},
    {{"--snaplen", "N", "bytes kept of each packet"}, &Options::snapLength, 1, 262144},
    {{"--interface", "NAME",
      "one end of a veth pair, both ends in a network namespace made for it"},
     &Options::interfaceName,
     0,
     0,
     "The wire, in place of the file; each packet is sent at its time"},
    {{"--loopback", nullptr, "the loopback; first bytes of addresses are 127"}, &Options::loopback},
    {{"--seconds", "N", "end by then if --count isn't reached; 0: go on"},
     &Options::seconds,
     0,
     kMany},
    {{"--rate", "N", "packets a second"}, &Options::rate, 1, 1'000'000'000, "The clock"},
    {{"--start", "S", "time of the first packet, seconds since 1970"}, &Options::start},
    {{"--jump", "P:S", "before packet P the clock moves by S seconds"}, &Options::jumps},
    {{"--hosts", "N", "senders"}, &Options::hosts, 1, 1'000'000, "Who sends what to where"},
    {{"--per-address", "N", "senders that share an address"}, &Options::perAddress, 1, 1000},
    {{"--nets", "N", "multicast addresses"}, &Options::nets, 1, 10'000},
    {{"--ports", "N", "destination ports"}, &Options::ports, 1, 1000},
    {{"--first-port", "N", "the lowest of these"}, &Options::firstPort, 1, 60'000},
    {{"--subjects", "N", "subjects"}, &Options::subjects, 1, 10'000'000},
    {{"--publishers", "RANGE",
      "senders of a subject; of a range the low numbers are the frequent ones"},
     &Options::publishers,
     1,
     1'000'000},
    {{"--services", "N",
      "services, nets on ports, that a host sends on, each with its own subjects; 0: any"},
     &Options::services,
     0,
     1'000'000},
    {{"--host-skew", "N", "hosts drawn unevenly: host number hosts x u^N for an even u"},
     &Options::hostSkew,
     1,
     16},
    {{"--subject-skew", "N", "the same for subjects"}, &Options::subjectSkew, 1, 16},
    {{"--scids", "SHARE", "senders that have a SCid"}, &Options::scids},
    {{"--round-robin", nullptr, "subjects, and hosts of nulls, in turn"}, &Options::roundRobin},
    {{"--nulls", "SHARE", "null"},
     &Options::nulls,
     0,
     0,
     "Kinds of packets, shares of all; the rest is multicast data"},
    {{"--rreqs", "SHARE", "retransmission request"}, &Options::rreqs},
    {{"--rrejs", "SHARE", "retransmission reject"}, &Options::rrejs},
    {{"--ptp-data", "SHARE", "point-to-point data"}, &Options::ptpData},
    {{"--ptp-ackmes", "SHARE", "point-to-point ackme"}, &Options::ptpAckmes},
    {{"--ptp-acks", "SHARE", "point-to-point ack"}, &Options::ptpAcks},
    {{"--ptp-naks", "SHARE", "point-to-point nak"}, &Options::ptpNaks},
    {{"--non-bus", "SHARE", "UDP that isn't the bus's"}, &Options::nonBus},
    {{"--unknowns", "SHARE", "of no known type"}, &Options::unknowns},
    {{"--repeats", "SHARE", "an earlier sequence number"},
     &Options::repeats,
     0,
     0,
     "Multicast data, shares of it"},
    {{"--gaps", "SHARE", "1 to 4 sequence numbers left out"}, &Options::gaps},
    {{"--restarts", "SHARE", "new epoch, sequence number 1"}, &Options::restarts},
    {{"--fragments", "SHARE", "message that runs on in the next packet"}, &Options::fragments},
    {{"--host-status", "SHARE", "host status messages"}, &Options::hostStatus},
    {{"--payload", "RANGE", "bytes of UDP payload of data packets, more where a message needs it"},
     &Options::payload,
     64,
     kPayloadMax,
     "Messages"},
    {{"--messages", "RANGE", "messages a packet"}, &Options::messages, 1, kMessagesMax},
    {{"--message-skew", "N", "few more often, as --host-skew has it"},
     &Options::messageSkew,
     1,
     16},
    {{"--message-bytes", "RANGE",
      "bytes of a message, up to the highest --payload together; 0: they share the payload"},
     &Options::messageBytes,
     0,
     kPayloadMax},
    {{"--fields", "RANGE", "fields a message, fewer where it's full"}, &Options::fields, 0, 1000},
    {{"--types", "NAMES", "types of these fields"}, &Options::types},
    {{"--elements", "RANGE", "elements a subject"}, &Options::elements, 1, 60},
    {{"--element-length", "RANGE", "characters an element"}, &Options::elementLength, 1, 127},
    {{"--replies", "SHARE", "messages with a reply subject"}, &Options::replies},
    {{"--no-subject", "SHARE", "messages without a subject"}, &Options::noSubject},
    {{"--damaged", "SHARE", "packets of the bus that are damaged"},
     &Options::damaged,
     0,
     0,
     "Faults"},
    {{"--damage", "NAMES", "the damages to choose from"}, &Options::damage},
    {{"--cut", "SHARE", "packets that the capture cut short"}, &Options::cut},
    {{"--cut-to", "RANGE", "bytes left of these"}, &Options::cutTo, 1, 65535},
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
    if (text.empty() || numberParse(digits, value) != nullptr) return {};
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
    const std::string text =
        std::visit([&](auto member) { return show(defaults.*member); }, option.target);
    return text.empty() ? text : " [" + text + "]";
}

bool setTarget(const Option& option, std::string_view text, Options& options) {
    return std::visit([&](auto member) { return set(option, text, options.*member); },
                      option.target);
}

constexpr OptionRow kMixOption = {"--mix", nullptr, "a bus's own mix"};

void setMix(const OptionRows& rows, Options& options) {
    for (const MixRow& row : kMix) {
        setTarget(static_cast<const Option&>(*optionFind(rows, row.name)), row.text, options);
    }
}

// Of the mix: no more publishers than there are hosts.
void shrinkPublishers(Options& options) {
    const auto hosts = static_cast<uint32_t>(options.hosts);
    options.publishers.high = std::min(options.publishers.high, hosts);
    options.publishers.low = std::min(options.publishers.low, options.publishers.high);
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

constexpr size_t kHelpWidth = 23;

}  // namespace

ParseResult optionsParse(std::span<char* const> arguments,
                         GeneratorOptions& options,
                         std::string& error) {
    OptionRows rows = {&kMixOption, &kOptionHelp, &kOptionVersion};
    optionRowsAdd(rows, kOptions);
    OptionReader reader{.rows = rows, .rest = arguments};
    bool hasMixPublishers = false;
    while (optionNext(reader)) {
        if (reader.row == &kOptionHelp) return ParseResult::kHelp;
        if (reader.row == &kOptionVersion) return ParseResult::kVersion;
        if (reader.row == nullptr) {
            optionRefuse(reader, "not an option");
        } else if (reader.row == &kMixOption) {
            setMix(rows, options);
            hasMixPublishers = true;
        } else {
            const auto& option = static_cast<const Option&>(*reader.row);
            const std::string_view text = reader.value != nullptr ? reader.value : "";
            if (!setTarget(option, text, options)) optionRefuse(reader, "not possible");
            const auto* const publishers = std::get_if<Range Options::*>(&option.target);
            if (publishers != nullptr && *publishers == &Options::publishers) {
                hasMixPublishers = false;
            }
        }
    }
    error = reader.fault;
    if (!error.empty()) return ParseResult::kWrong;
    if (hasMixPublishers) shrinkPublishers(options);
    const char* const conflict = findConflict(options);
    if (conflict != nullptr) error = conflict;
    return conflict != nullptr ? ParseResult::kWrong : ParseResult::kRun;
}

std::string optionsHelp() {
    std::string help =
        "usage: pelmogen --out FILE | --interface NAME | --loopback [--mix] [options ...]\n"
        "Makes bus traffic, as a capture or live; the same options give the same packets.\n"
        "Live, it prints what was sent, and SIGINT and SIGTERM end it early.\n"
        "SHARE is 0 to 1, six places at most. RANGE is N or N-N. NAMES are comma-separated.\n"
        "Defaults are in brackets.\n";
    for (const Option& option : kOptions) {
        if (option.heading != nullptr) help += std::string("\n") + option.heading + ":\n";
        const std::string text = option.help + showDefault(option);
        optionHelpAdd(help, {option.names, option.valueWord, text.c_str()}, kHelpWidth);
    }
    help +=
        "\nOther (see also pelmoscope and pelmowatch, which read what this makes, and pelmobus and "
        "pmd):\n";
    optionHelpAdd(help, kOptionHelp, kHelpWidth);
    optionHelpAdd(help, kOptionVersion, kHelpWidth);
    help += "\n--mix stands for these options, a bus's own mix; those after it override:\n";
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
