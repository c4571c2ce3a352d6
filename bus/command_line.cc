#include "bus/command_line.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "bus/number.h"

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

struct Option {
    const char* name;
    const char* valueWord;  // null for a switch
    uint32_t groups;        // CommandGroup bits
    const char* usage;
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
constexpr const char* kSequenceUsage = "add the u64 field \"seq\", from 1";
constexpr const char* kWaitUsage = "wait for a broken connection to be back";

// In the order of the usage text.
constexpr Option kOptions[] = {
    {"--service", "TEXT", kForConnection, "service of the traffic", setText<&S::service>},
    {"--network", "TEXT", kForConnection, "network of the traffic", setText<&S::network>},
    {"--daemon", "TEXT", kForConnection, "port, or host and port (7500)", setText<&S::daemon>},
    {"--no-resume", nullptr, kForConnection, kNoResumeUsage, setTrue<&S::noResume>},
    {"--local", nullptr, kForConnection, kLocalUsage, setTrue<&S::local>},
    {"--description", "TEXT", kForConnection, "tell the daemon", setText<&S::description>},
    {"--http", "TEXT", kForConnection, "tell the daemon an address", setText<&S::http>},
    {"--hidden", nullptr, kForConnection, kHiddenUsage, setTrue<&S::hidden>},
    {"--no-echo", nullptr, kForConnection, "don't get own messages", setTrue<&S::noEcho>},
    {"--reliability", "SECONDS", kForConnection, kReliabilityUsage, setReliability},
    {"--batch", nullptr, kForConnection, "gather small messages", setTrue<&S::batch>},
    {"--count", "N", kCounted, "end after so many messages", setCount},
    {"--seconds", "T", kTimed, kSecondsUsage, setSeconds},
    {"--rate", "R", kPaced, "messages a second; 0: as fast as it goes", setRate},
    {"--json", nullptr, kPrinters | kForSend, kJsonUsage, setTrue<&S::json>},
    {"--quiet", nullptr, kPrinters, "print no messages, count them", setTrue<&S::quiet>},
    {"--lines", nullptr, kForSend, kLinesUsage, setTrue<&S::lines>},
    {"--reply", "SUBJECT", kForSend, "set the reply subject", setText<&S::reply>},
    {"--size", "BYTES", kSized, "add the opaque field \"pad\"", setSize},
    {"--sequence", nullptr, kComposers, kSequenceUsage, setTrue<&S::sequence>},
    {"--wait", nullptr, kWaiters, kWaitUsage, setTrue<&S::wait>},
};

constexpr const char* kHelpUsage = "this text; behind a command, that of the command";

std::string nameOf(const Command& command) {
    std::string name = command.name;
    return command.second != nullptr ? name + " " + command.second : name;
}

// Usage texts

void addRow(std::string& out, const std::string& left, const char* right) {
    char row[160];
    std::snprintf(row, sizeof row, "  %-30s %s\n", left.c_str(), right);
    out += row;
}

void addOptions(std::string& out, uint32_t group) {
    out += "\nOptions:\n";
    for (const Option& option : kOptions) {
        if ((option.groups & group) == 0) continue;
        const std::string value = option.valueWord != nullptr ? option.valueWord : "";
        addRow(out, value.empty() ? option.name : option.name + (" " + value), option.usage);
    }
    addRow(out, "--help", kHelpUsage);
    addRow(out, "--version", "the version");
}

std::string programUsage() {
    std::string out =
        "usage: pelmobus [CONNECTION OPTION...] COMMAND [OPTION...] [ARGUMENT...]\n"
        "\nCommands:\n";
    for (const Command& command : commandsAll()) {
        addRow(out, nameOf(command) + " " + command.arguments, command.usage);
    }
    addOptions(out, kForConnection);
    out += "\nA FIELD is NAME=TEXT or NAME:TYPE=VALUE with a TYPE of\n  " + fieldKindNames() + "\n";
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
    std::span<char* const> rest;
    CommandLine& line;
    uint32_t group = kForConnection;      // whose options are read
    std::vector<const char*> words = {};  // of the command, that are no options
};

bool fail(Reader& reader, std::string_view word, std::string_view what) {
    reader.line.fault = word;
    reader.line.fault += ": ";
    reader.line.fault += what;
    return false;
}

const char* takeWord(Reader& reader) {
    const char* word = reader.rest.front();
    reader.rest = reader.rest.subspan(1);
    return word;
}

const Option* findOption(std::string_view name) {
    const auto* found =
        std::ranges::find_if(kOptions, [name](const Option& row) { return name == row.name; });
    return found != std::end(kOptions) ? found : nullptr;
}

// True where the word asks for a text instead of a run.
bool isQuestion(Reader& reader, std::string_view name) {
    if (name == "--version") {
        reader.line.answer = std::string("pelmobus ") + pelmo_Version() + "\n";
    } else if (name == "--help") {
        const Command* command = reader.line.command;
        reader.line.answer = command != nullptr ? commandUsage(*command) : programUsage();
    }
    return !reader.line.answer.empty();
}

const char* misplaced(const Option& option, const Reader& reader) {
    if ((option.groups & reader.group) != 0) return nullptr;
    if (reader.group == kForConnection) return "belongs behind the command";
    return option.groups == kForConnection ? "belongs ahead of the command"
                                           : "not an option of this command";
}

// False ends the reading.
bool takeOption(Reader& reader) {
    const char* word = takeWord(reader);
    const char* equals = std::strchr(word, '=');
    const std::string_view name =
        equals != nullptr ? std::string_view(word, static_cast<size_t>(equals - word)) : word;
    if (equals == nullptr && isQuestion(reader, name)) return false;
    const Option* option = findOption(name);
    if (option == nullptr) return fail(reader, word, "no such option");
    const char* place = misplaced(*option, reader);
    if (place != nullptr) return fail(reader, word, place);

    const char* value = equals != nullptr ? equals + 1 : nullptr;
    if (option->valueWord == nullptr) {
        if (value != nullptr) return fail(reader, word, "takes no value");
    } else if (value == nullptr) {
        if (reader.rest.empty()) return fail(reader, word, "needs a value");
        value = takeWord(reader);
    }
    const char* fault = option->store(reader.line.settings, value);
    if (fault == nullptr) return true;
    return fail(reader, std::string(name) + " " + value, fault);
}

bool isOption(const char* word) {
    return word[0] == '-' && word[1] != '\0';
}

// A first word that needs a second, and has another, is told with the ones that there are.
bool takeCommand(Reader& reader) {
    const std::string_view name = takeWord(reader);
    const char* second = reader.rest.empty() ? "" : reader.rest.front();
    std::string seconds;
    for (const Command& command : commandsAll()) {
        if (name != command.name) continue;
        if (command.second == nullptr || std::strcmp(command.second, second) == 0) {
            if (command.second != nullptr) takeWord(reader);
            reader.line.command = &command;
            reader.group = command.group;
            return true;
        }
        seconds += seconds.empty() ? command.second : std::string(" or ") + command.second;
    }
    if (seconds.empty()) return fail(reader, name, "no such command; see --help");
    const std::string word(name);
    return fail(reader, *second != '\0' ? word + " " + second : word, "needs " + seconds);
}

bool takeConnectionOptions(Reader& reader) {
    while (!reader.rest.empty() && isOption(reader.rest.front())) {
        if (std::strcmp(reader.rest.front(), "--") == 0) {
            takeWord(reader);
            break;
        }
        if (!takeOption(reader)) return false;
    }
    return !reader.rest.empty() || fail(reader, "a command is missing", "see --help");
}

bool takeArguments(Reader& reader) {
    bool optionsEnded = false;
    while (!reader.rest.empty()) {
        const char* word = reader.rest.front();
        if (!optionsEnded && std::strcmp(word, "--") == 0) {
            takeWord(reader);
            optionsEnded = true;
        } else if (!optionsEnded && isOption(word)) {
            if (!takeOption(reader)) return false;
        } else {
            reader.words.push_back(takeWord(reader));
        }
    }
    return true;
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
    CommandLine line;
    Reader reader{arguments, line};
    const bool isGood = takeConnectionOptions(reader) && takeCommand(reader) &&
                        takeArguments(reader) && sortWords(reader) && checkTogether(reader);
    if (!isGood) line.command = nullptr;
    return line;
}
