#include "bus/command_line.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "programs/number.h"
#include "programs/option_table.h"

namespace {

// How options store their values: null, or what is wrong with one. A switch is handed a null one.

template <auto kMember>
const char* setTrue(BusSettings& settings, const char*) {
    settings.*kMember = true;
    return nullptr;
}

template <auto kMember>
const char* setText(BusSettings& settings, const char* value) {
    settings.*kMember = value;
    return nullptr;
}

const char* setCount(BusSettings& settings, const char* value) {
    return numberParse(value, settings.count.emplace());
}

constexpr uint32_t kMostPadBytes = uint32_t{1} << 30;

const char* setSize(BusSettings& settings, const char* value) {
    const char* fault = numberParse(value, settings.sizeBytes.emplace());
    if (fault == nullptr && *settings.sizeBytes > kMostPadBytes) return "out of range";
    return fault;
}

const char* parseSeconds(const char* value, double& out) {
    const char* fault = numberParse(value, out);
    if (fault != nullptr) return fault;
    return std::isfinite(out) && out >= 0 ? nullptr : "out of range";
}

const char* setSeconds(BusSettings& settings, const char* value) {
    return parseSeconds(value, settings.seconds.emplace());
}

const char* setRate(BusSettings& settings, const char* value) {
    return parseSeconds(value, settings.rate);
}

const char* setReliability(BusSettings& settings, const char* value) {
    const char* fault = parseSeconds(value, settings.reliabilitySeconds.emplace());
    if (fault == nullptr && *settings.reliabilitySeconds == 0) return "out of range";
    return fault;
}

// An empty one is a variable of the shell that isn't set.
template <auto kMember>
const char* setNotEmpty(BusSettings& settings, const char* value) {
    settings.*kMember = value;
    return *value != '\0' ? nullptr : "is empty";
}

constexpr double kLeastSpeed = 0.001;
constexpr double kMostSpeed = 1'000'000;

const char* setSpeed(BusSettings& settings, const char* value) {
    double& speed = settings.speed.emplace();
    const char* fault = numberParse(value, speed);
    if (fault != nullptr) return fault;
    return speed >= kLeastSpeed && speed <= kMostSpeed ? nullptr : "out of range";
}

struct Option : OptionRow {
    uint32_t groups;  // CommandGroup bits
    const char* (*store)(BusSettings& settings, const char* value);
};

using S = BusSettings;

constexpr uint32_t kBenches = kForBenchSend | kForBenchRequest | kForBenchListen;
constexpr uint32_t kIntakes = kForListen | kForAnswer | kForCircuit;
constexpr uint32_t kPrinters = kIntakes | kForRequest;
constexpr uint32_t kTimed = kPrinters | kBenches;
constexpr uint32_t kCounted = kTimed | kForSend;
constexpr uint32_t kComposers = kForSend | kForRequest | kForAnswer;
constexpr uint32_t kSized = kComposers | kForBenchSend | kForBenchRequest | kForBenchListen;
constexpr uint32_t kWaiters = kForSend | kForRequest;
constexpr uint32_t kPaced = kForSend | kForBenchSend;

constexpr const char* kLocalUsage = "no daemon: the transport within the process";
constexpr const char* kNoResumeUsage = "don't resume what an earlier connection left";
constexpr const char* kHiddenUsage = "hide from other clients; may send on reserved subjects";
constexpr const char* kReliabilityUsage = "how long the daemon keeps messages for resending";
constexpr const char* kSecondsUsage = "end after so long; of request, how long to wait (10)";
constexpr const char* kJsonUsage = "messages as lines of JSON; of send, those it reads";
constexpr const char* kLinesUsage = "a message with the field \"line\" for each line read";
constexpr const char* kPaceUsage = "send lines of JSON at the times that they carry";
constexpr const char* kSpeedUsage = "so many times as fast; 0.001 to 1000000";
constexpr const char* kOriginalUsage = "send lines of JSON to the subjects that they name";
constexpr const char* kPrefixUsage = "send them there with TEXT before it, such as TEST.";
constexpr const char* kToUsage = "send them all to one subject";
constexpr const char* kSequenceUsage = "add the u64 field \"seq\", from 1";
constexpr const char* kWaitUsage = "wait for a broken connection to be back";

// In the order of the usage text.
constexpr Option kOptions[] = {
    {{"--service", "TEXT", "service of the traffic"}, kForConnection, setText<&S::service>},
    {{"--network", "TEXT", "network of the traffic"}, kForConnection, setText<&S::network>},
    {{"--daemon", "TEXT", "port, or host and port (7500)"}, kForConnection, setText<&S::daemon>},
    {{"--no-resume", nullptr, kNoResumeUsage}, kForConnection, setTrue<&S::noResume>},
    {{"--local", nullptr, kLocalUsage}, kForConnection, setTrue<&S::local>},
    {{"--description", "TEXT", "a description for the daemon"},
     kForConnection,
     setText<&S::description>},
    {{"--http", "TEXT", "an HTTP address for the daemon"}, kForConnection, setText<&S::http>},
    {{"--hidden", nullptr, kHiddenUsage}, kForConnection, setTrue<&S::hidden>},
    {{"--no-echo", nullptr, "don't get own messages"}, kForConnection, setTrue<&S::noEcho>},
    {{"--reliability", "SECONDS", kReliabilityUsage}, kForConnection, setReliability},
    {{"--batch", nullptr, "gather small messages"}, kForConnection, setTrue<&S::batch>},
    {{"--count", "N", "end after so many messages"}, kCounted, setCount},
    {{"--seconds", "T", kSecondsUsage}, kTimed, setSeconds},
    {{"--rate", "R", "messages a second; 0: as fast as it goes"}, kPaced, setRate},
    {{"--json", nullptr, kJsonUsage}, kPrinters | kForSend, setTrue<&S::json>},
    {{"--quiet", nullptr, "print no messages, count them"}, kPrinters, setTrue<&S::quiet>},
    {{"--lines", nullptr, kLinesUsage}, kForSend, setTrue<&S::lines>},
    {{"--pace", nullptr, kPaceUsage}, kForSend, setTrue<&S::pace>},
    {{"--speed", "N", kSpeedUsage}, kForSend, setSpeed},
    {{"--original", nullptr, kOriginalUsage}, kForSend, setTrue<&S::original>},
    {{"--prefix", "TEXT", kPrefixUsage}, kForSend, setNotEmpty<&S::prefix>},
    {{"--to", "SUBJECT", kToUsage}, kForSend, setNotEmpty<&S::to>},
    {{"--reply", "SUBJECT", "set the reply subject"}, kForSend, setText<&S::reply>},
    {{"--size", "BYTES", "add the opaque field \"pad\""}, kSized, setSize},
    {{"--sequence", nullptr, kSequenceUsage}, kComposers, setTrue<&S::sequence>},
    {{"--wait", nullptr, kWaitUsage}, kWaiters, setTrue<&S::wait>},
};

constexpr size_t kHelpWidth = 30;

std::string nameOf(const Command& command) {
    std::string name = command.name;
    return command.second != nullptr ? name + " " + command.second : name;
}

// Usage texts

void addOptions(std::string& out, uint32_t group) {
    out += "\nOptions:\n";
    for (const Option& option : kOptions) {
        if ((option.groups & group) != 0) optionHelpAdd(out, option, kHelpWidth);
    }
    optionHelpAdd(out, kOptionHelp, kHelpWidth);
    optionHelpAdd(out, kOptionVersion, kHelpWidth);
}

std::string programUsage() {
    std::string out =
        "usage: pelmobus [CONNECTION OPTION...] COMMAND [OPTION...] [ARGUMENT...]\n"
        "\nCommands:\n";
    for (const Command& command : commandsAll()) {
        helpLineAdd(out, nameOf(command) + " " + command.arguments, command.usage, kHelpWidth);
    }
    addOptions(out, kForConnection);
    out += "\nA FIELD is NAME=TEXT or NAME:TYPE=VALUE with a TYPE of\n  " + fieldKindNames() + "\n";
    out +=
        "\nSee also: pmd, a daemon for one machine; pelmoscope and pelmowatch, which watch the "
        "bus.\n";
    return out;
}

std::string commandUsage(const Command& command) {
    std::string out = "usage: pelmobus [CONNECTION OPTION...] " + nameOf(command) +
                      " [OPTION...] " + command.arguments + "\n\n" + command.usage + "\n";
    addOptions(out, command.group);
    return out;
}

// Reading

struct Reader {
    CommandLine& line;
    OptionReader options;
    uint32_t group = kForConnection;      // whose options are read
    std::vector<const char*> words = {};  // of the command, that are no options
};

bool fail(Reader& reader, std::string_view word, std::string_view what) {
    reader.line.fault = word;
    reader.line.fault += ": ";
    reader.line.fault += what;
    return false;
}

const char* misplaced(const Option& option, const Reader& reader) {
    if ((option.groups & reader.group) != 0) return nullptr;
    if (reader.group == kForConnection) return "belongs after the command";
    return option.groups == kForConnection ? "belongs before the command"
                                           : "not an option of this command";
}

// False ends the reading: by a fault, or by an option that asks for a text instead of a run.
bool takeOption(Reader& reader) {
    const OptionReader& found = reader.options;
    if (found.row == &kOptionVersion) return reader.line.answer = versionText("pelmobus"), false;
    if (found.row == &kOptionHelp) {
        const Command* command = reader.line.command;
        reader.line.answer = command != nullptr ? commandUsage(*command) : programUsage();
        return false;
    }
    const auto& option = static_cast<const Option&>(*found.row);
    const char* place = misplaced(option, reader);
    if (place != nullptr) return fail(reader, found.name, place);
    const char* fault = option.store(reader.line.settings, found.value);
    return fault == nullptr || optionRefuse(reader.options, fault);
}

// Of a first word that needs a second and has another, the fault names those that exist.
bool takeCommand(Reader& reader, std::string_view name) {
    std::span<char* const>& rest = reader.options.rest;
    const char* second = rest.empty() ? "" : rest.front();
    std::string seconds;
    for (const Command& command : commandsAll()) {
        if (name != command.name) continue;
        if (command.second == nullptr || std::strcmp(command.second, second) == 0) {
            if (command.second != nullptr) rest = rest.subspan(1);
            reader.line.command = &command;
            reader.group = command.group;
            reader.options.optionsEnded = false;
            return true;
        }
        seconds += seconds.empty() ? command.second : std::string(" or ") + command.second;
    }
    if (seconds.empty()) return fail(reader, name, "no such command; see --help");
    const std::string word(name);
    return fail(reader, *second != '\0' ? word + " " + second : word, "needs " + seconds);
}

bool takeWords(Reader& reader) {
    while (optionNext(reader.options)) {
        const char* const word = reader.options.value;
        if (reader.options.row != nullptr) {
            if (!takeOption(reader)) break;
        } else if (reader.line.command != nullptr) {
            reader.words.push_back(word);
        } else if (!takeCommand(reader, word)) {
            return false;
        }
    }
    if (!reader.options.fault.empty()) reader.line.fault = reader.options.fault;
    if (!reader.line.fault.empty() || !reader.line.answer.empty()) return false;
    return reader.line.command != nullptr || fail(reader, "a command is missing", "see --help");
}

bool sortWords(Reader& reader) {
    const Command& command = *reader.line.command;
    BusSettings& settings = reader.line.settings;
    for (const char* word : reader.words) {
        if (settings.subjects.size() < command.mostSubjects) {
            settings.subjects.push_back(word);
            continue;
        }
        if (!command.takesFields) return fail(reader, word, "one argument too many");
        const std::string fault = textFieldParse(word, settings.fields.emplace_back());
        if (!fault.empty()) return fail(reader, word, fault);
    }
    const bool isEnough = settings.subjects.size() >= command.leastSubjects;
    return isEnough || fail(reader, nameOf(command), "needs a SUBJECT");
}

// What only a daemon's transport can do.
const char* notLocal(const BusSettings& settings) {
    if (settings.service != nullptr) return "--service";
    if (settings.network != nullptr) return "--network";
    if (settings.daemon != nullptr) return "--daemon";
    if (settings.noResume) return "--no-resume";
    if (settings.description != nullptr) return "--description";
    if (settings.http != nullptr) return "--http";
    if (settings.hidden) return "--hidden";
    if (settings.noEcho) return "--no-echo";
    if (settings.reliabilitySeconds) return "--reliability";
    return settings.batch ? "--batch" : nullptr;
}

bool checkTogether(Reader& reader) {
    const BusSettings& settings = reader.line.settings;
    const char* word = settings.local ? notLocal(settings) : nullptr;
    if (word != nullptr) return fail(reader, word, "needs a daemon, and --local has none");
    const Command& command = *reader.line.command;
    const char* fault = command.check != nullptr ? command.check(settings) : nullptr;
    return fault == nullptr || fail(reader, nameOf(command), fault);
}

}  // namespace

CommandLine commandLineRead(std::span<char* const> arguments) {
    OptionRows rows = {&kOptionHelp, &kOptionVersion};
    optionRowsAdd(rows, kOptions);
    CommandLine line;
    Reader reader{line, {.rows = rows, .rest = arguments}};
    const bool isGood = takeWords(reader) && sortWords(reader) && checkTogether(reader);
    if (!isGood) line.command = nullptr;
    return line;
}
