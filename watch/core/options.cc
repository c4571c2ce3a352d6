#include "watch/core/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "trace/capture/capture_session.h"
#include "trace/settings.h"
#include "watch/capture/source.h"
#include "watch/core/name.h"

namespace {

constexpr int kUsageStatus = 2;
constexpr int kNamesWidth = 30;

// Three years: beyond, ends of intervals would leave the 32 bits of a capture's time stamps.
constexpr unsigned long long kMostIntervalSeconds = 100'000'000;

bool isStrict = false;

// Settings borrow the values, which therefore last as long as the process.
std::list<std::string> keptValues;

const char* storeInterface(const char* value) {
    traceSettings.interfaceName = value;
    return nullptr;
}

const char* storeRead(const char* value) {
    if (traceSettings.readFile == nullptr) traceSettings.readFile = value;
    sourceSettings.files.emplace_back(value);
    traceSettings.liveCapture = false;
    return nullptr;
}

const char* storeTime(const char* value, std::optional<CaptureTime>* out) {
    CaptureTime time;
    if (!captureTimeParse(value, &time)) {
        return "isn't a time: 2026-11-25T14:03, with seconds or a zone if need be, or 14:03";
    }
    *out = time;
    return nullptr;
}

const char* storeFrom(const char* value) {
    return storeTime(value, &sourceSettings.from);
}

const char* storeTo(const char* value) {
    return storeTime(value, &sourceSettings.to);
}

const char* storeStrict(const char* /*none*/) {
    isStrict = true;
    return nullptr;
}

const char* storeInterval(const char* value) {
    unsigned long long seconds = 0;
    const char* const wrong = optionNumber(value, 0, kMostIntervalSeconds, &seconds);
    if (wrong == nullptr) traceSettings.updateInterval = static_cast<uint32_t>(seconds);
    return wrong;
}

template <auto... kLists>
const char* collect(const char* value) {
    ((traceSettings.*kLists).push_back(value), ...);
    return nullptr;
}

const char* storeFilter(const char* value) {
    traceSettings.filterText = value;
    return nullptr;
}

using S = TraceSettings;

constexpr OptionRow kSourceOptions[] = {
    {"-i,--interface", "NAME", "capture live from this interface", storeInterface},
    {"-r,--read", "FILE...",
     "read these saved captures, or all of a folder, in the order of time; - is the standard input",
     storeRead},
    {"--from", "TIME", "of saved captures only what is from TIME on: 2026-11-25T14:03 or 14:03",
     storeFrom},
    {"--to", "TIME", "of saved captures only what is until TIME", storeTo},
    {"--strict", nullptr, "end with status 4 where a saved capture has nothing of the bus",
     storeStrict},
    {"-u,--interval", "SECONDS", "time between two snapshots [10; 2 of top, 1 of report]",
     storeInterval},
    {"-addr,--addr", "ADDRESS", "only packets from or to the address; repeatable",
     collect<&S::srcAddrs, &S::dstAddrs>},
    {"-src,--src", "ADDRESS", "only packets from the address; repeatable", collect<&S::srcAddrs>},
    {"-dst,--dst", "ADDRESS", "only packets to the address; repeatable", collect<&S::dstAddrs>},
    {"-port,--port", "PORT", "only packets of the port; repeatable", collect<&S::ports>},
    {"-filter,--filter", "EXPRESSION", "a filter of your own, pcap-filter(7), instead",
     storeFilter},
};

using Rows = std::vector<const OptionRow*>;
using Words = std::vector<std::string>;

Words namesOf(const OptionRow& row) {
    Words names;
    for (std::string_view left = row.names; !left.empty();) {
        const size_t length = std::min(left.find(','), left.size());
        names.emplace_back(left.substr(0, length));
        left.remove_prefix(std::min(length + 1, left.size()));
    }
    return names;
}

// One dash and a word: the parser knows only letters there.
bool isOldName(const std::string& name) {
    return name.size() > 2 && name[0] == '-' && name[1] != '-';
}

const OptionRow* findRow(const Rows& rows, const std::string& name) {
    for (const OptionRow* row : rows) {
        if (std::ranges::count(namesOf(*row), name) != 0) return row;
    }
    return nullptr;
}

[[noreturn]] void refuseUse(const std::string& word, const std::string& what) {
    optionsRefuse(("\"" + word + "\"").c_str(), what.c_str());
}

// Does the option take all values up to the next one?
bool takesMore(const OptionRow& row) {
    return std::string_view(row.valueWord).ends_with("...");
}

bool isPlainWord(const std::string& word) {
    return word == "-" || !word.starts_with('-');
}

// Gives old names their second dash. A value stays as it is, whatever it looks like.
Words withDashes(const Rows& rows, Words words) {
    for (size_t at = 0; at < words.size(); ++at) {
        const std::string name = words[at].substr(0, words[at].find('='));
        const bool holdsValue = name.size() < words[at].size();
        const OptionRow* const row = findRow(rows, name);
        if (row == nullptr) continue;
        if (row->valueWord == nullptr && holdsValue) refuseUse(words[at], "takes no value");
        if (isOldName(name)) words[at].insert(0, "-");
        if (row->valueWord == nullptr) continue;
        if (!holdsValue && ++at == words.size()) {
            refuseUse(name, std::string("needs a value: ") + row->valueWord);
        }
        if (!takesMore(*row)) continue;
        while (at + 1 < words.size() && isPlainWord(words[at + 1])) {
            words.insert(words.begin() + static_cast<std::ptrdiff_t>(at) + 1, "--read");
            at += 2;
        }
    }
    return words;
}

std::string parserNames(const OptionRow& row) {
    std::string names;
    for (const std::string& name : namesOf(row)) {
        if (isOldName(name)) continue;
        names += (names.empty() ? "" : ",") + name;
    }
    return names;
}

void printRows(std::span<const OptionRow> rows) {
    for (const OptionRow& row : rows) {
        std::string names;
        for (const std::string& name : namesOf(row)) {
            names += (names.empty() ? "" : ", ") + name;
        }
        if (row.valueWord != nullptr) names += std::string(" ") + row.valueWord;
        std::printf("  %-*s %s\n", kNamesWidth, names.c_str(), row.help);
    }
}

[[noreturn]] void printForms(std::span<const Form* const> forms) {
    std::printf(
        "usage: %s FORM (-i INTERFACE | -r FILE) [OPTIONS]\n\n"
        "Watches a Pelmo message bus from the network, for machines and people.\n\nForms:\n",
        kWatchName);
    for (const Form* form : forms) {
        std::printf("  %-10s %s\n", form->name, form->summary);
    }
    std::printf("\n%s FORM --help lists all options of a form, --version tells the version.\n",
                kWatchName);
    std::exit(0);
}

[[noreturn]] void printHelp(const Form& form) {
    std::printf("usage: %s %s (-i INTERFACE | -r FILE) [OPTIONS]\n\n%s.\n\nSource:\n", kWatchName,
                form.name, form.summary);
    printRows(kSourceOptions);
    std::printf("\nOptions of %s:\n", form.name);
    printRows(form.options);
    std::printf("  %-*s %s\n", kNamesWidth, "--help", "print this and end");
    std::exit(0);
}

[[noreturn]] void printVersion() {
    std::printf("%s %s\n", kWatchName, PELMO_TREE_VERSION);
    std::exit(0);
}

// What the parser found of each row.
struct Found {
    const OptionRow* row;
    Words values;
    size_t times = 0;
};

void addRow(CLI::App& app, Found& found) {
    const std::string names = parserNames(*found.row);
    if (found.row->valueWord == nullptr) {
        app.add_flag(names, found.times);
        return;
    }
    app.add_option(names, found.values)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->type_name(found.row->valueWord);
}

void storeAll(const Found& found) {
    for (size_t time = 0; time < found.times; ++time) {
        (void)found.row->store(nullptr);
    }
    for (const std::string& value : found.values) {
        const char* const wrong = found.row->store(keptValues.emplace_back(value).c_str());
        if (wrong == nullptr) continue;
        const std::string word = namesOf(*found.row).back() + ": \"" + value + "\"";
        optionsRefuse(word.c_str(), wrong);
    }
}

void parseRows(const Form& form, const Rows& rows, Words words) {
    CLI::App app;
    app.set_help_flag("--help");
    app.allow_extras();
    std::vector<Found> all;
    all.reserve(rows.size());
    for (const OptionRow* row : rows) {
        addRow(app, all.emplace_back(Found{.row = row, .values = {}}));
    }
    try {
        std::ranges::reverse(words);  // the parser takes them from the end
        app.parse(std::move(words));
    } catch (const CLI::CallForHelp&) {
        printHelp(form);
    } catch (const CLI::Error& error) {
        optionsRefuse((std::string(form.name) + ":").c_str(), error.what());
    }
    if (app.remaining_size() != 0) {
        refuseUse(app.remaining()[0], std::string("isn't an option of ") + form.name);
    }
    std::ranges::for_each(all, storeAll);
}

const Form& findForm(const char* name, std::span<const Form* const> forms) {
    for (const Form* form : forms) {
        if (std::string_view(form->name) == name) return *form;
    }
    refuseUse(name, "is no form; --help lists them");
}

// What forms call the source by.
void nameSource() {
    const size_t more = sourceSettings.files.size() - 1;
    if (sourceSettings.files.size() < 2) return;
    traceSettings.readFile =
        keptValues.emplace_back(sourceSettings.files[0] + " and " + std::to_string(more) + " more")
            .c_str();
}

void settle(const Form& form) {
    const bool hasInterface = traceSettings.interfaceName != nullptr;
    const bool hasFile = traceSettings.readFile != nullptr;
    if (hasInterface == hasFile) optionsRefuse(form.name, "takes one of -i and -r");
    if (hasInterface && (sourceSettings.from || sourceSettings.to)) {
        optionsRefuse(form.name, "takes --from and --to only with -r");
    }
    nameSource();
    if (traceSettings.filterText == nullptr) {
        traceSettings.builtFilter =
            buildFilter(traceSettings.srcAddrs, traceSettings.dstAddrs, traceSettings.ports);
        traceSettings.filterText = traceSettings.builtFilter.c_str();
    }
    const char* const wrong = form.settle != nullptr ? form.settle() : nullptr;
    if (wrong != nullptr) optionsRefuse(form.name, wrong);
}

}  // namespace

void optionsRefuse(const char* word, const char* what) {
    std::fprintf(stderr, "%s: %s %s\n", kWatchName, word, what);
    std::exit(kUsageStatus);
}

bool optionsAreStrict() {
    return isStrict;
}

const Form& optionsParse(int argc, char* const* argv, std::span<const Form* const> forms) {
    const std::span<char* const> arguments(argv, static_cast<size_t>(argc));
    if (arguments.size() < 2) optionsRefuse("FORM", "is missing; --help lists the forms");
    const std::string_view first = arguments[1];
    if (first == "--help" || first == "-h") printForms(forms);
    if (first == "--version") printVersion();

    const Form& form = findForm(arguments[1], forms);
    traceSettings.updateInterval = form.intervalSeconds;
    Rows rows;
    for (const OptionRow& row : kSourceOptions) {
        rows.push_back(&row);
    }
    for (const OptionRow& row : form.options) {
        rows.push_back(&row);
    }
    parseRows(form, rows, withDashes(rows, Words(arguments.begin() + 2, arguments.end())));
    settle(form);
    return form;
}
