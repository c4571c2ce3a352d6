#include "watch/core/options.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "programs/number.h"
#include "trace/capture/capture_session.h"
#include "trace/settings.h"
#include "watch/capture/source.h"

namespace {

constexpr int kUsageStatus = 2;
constexpr size_t kHelpWidth = 30;

// Three years: after a longer one, ends of intervals would leave the 32 bits of a capture's time
// stamps.
constexpr uint32_t kMostIntervalSeconds = 100'000'000;

bool isStrict = false;

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

const char* storeFrom(const char* value) {
    return optionsStoreTime(value, &sourceSettings.from);
}

const char* storeTo(const char* value) {
    return optionsStoreTime(value, &sourceSettings.to);
}

const char* storeStrict(const char* /*none*/) {
    isStrict = true;
    return nullptr;
}

const char* storeWait(const char* /*none*/) {
    sourceSettings.waitsForInterface = true;
    return nullptr;
}

const char* storeInterval(const char* value) {
    return numberParse(value, 0, kMostIntervalSeconds, traceSettings.updateInterval);
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

constexpr const char* kReadHelp =
    "read these saved captures, or all of a folder, in the order of time; - is the standard input";
constexpr const char* kWaitHelp = "wait for the interface where it isn't there yet, or is removed";
constexpr const char* kFromHelp =
    "of saved captures, only what is from TIME on: 2026-11-25T14:03 or 14:03";
constexpr const char* kStrictHelp = "end with status 4 if a saved capture has nothing of the bus";
constexpr const char* kIntervalHelp = "time between two snapshots [10; 2 of top, 1 of report]";
constexpr const char* kAddressHelp = "only packets from or to the address; repeatable";

constexpr FormOption kSourceOptions[] = {
    {{"-i,--interface", "NAME", "capture live from this interface"}, storeInterface},
    {{"--wait-interface", nullptr, kWaitHelp}, storeWait},
    {{"-r,--read", "FILE...", kReadHelp}, storeRead},
    {{"--from", "TIME", kFromHelp}, storeFrom},
    {{"--to", "TIME", "of saved captures, only what is until TIME"}, storeTo},
    {{"--strict", nullptr, kStrictHelp}, storeStrict},
    {{"-u,--interval", "SECONDS", kIntervalHelp}, storeInterval},
    {{"-addr,--addr", "ADDRESS", kAddressHelp}, collect<&S::srcAddrs, &S::dstAddrs>},
    {{"-src,--src", "ADDRESS", "only packets from the address; repeatable"}, collect<&S::srcAddrs>},
    {{"-dst,--dst", "ADDRESS", "only packets to the address; repeatable"}, collect<&S::dstAddrs>},
    {{"-port,--port", "PORT", "only packets of the port; repeatable"}, collect<&S::ports>},
    {{"-filter,--filter", "EXPRESSION", "a filter of your own, pcap-filter(7), instead"},
     storeFilter},
};

// Help texts

[[noreturn]] void printAndEnd(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::exit(0);
}

std::string usageOf(const char* form) {
    return std::string("usage: ") + kWatchName + " " + form +
           " (-i INTERFACE | -r FILE...) [OPTIONS]\n\n";
}

std::string programHelp(std::span<const Form* const> forms) {
    std::string out = usageOf("FORM") +
                      "Watches a Pelmo message bus from the network, for machines and people.\n"
                      "\nForms:\n";
    for (const Form* form : forms) {
        helpLineAdd(out, form->name, form->summary, 10);
    }
    return out + "\n" + kWatchName +
           " FORM --help lists all options of a form, --version prints the versions.\n"
           "\nSee also: pelmoscope, which prints the same counts as tables; pelmobus, a client for "
           "the\nshell; pmd, a daemon for one machine.\n";
}

void addOptions(std::string& out, std::span<const FormOption> options) {
    for (const FormOption& option : options) {
        optionHelpAdd(out, option, kHelpWidth);
    }
}

std::string formHelp(const Form& form) {
    std::string out = usageOf(form.name) + form.summary + ".\n\nSource:\n";
    addOptions(out, kSourceOptions);
    out += std::string("\nOptions of ") + form.name + ":\n";
    addOptions(out, form.options);
    optionHelpAdd(out, kOptionHelp, kHelpWidth);
    return out;
}

// Reading

const Form& findForm(std::string_view name, std::span<const Form* const> forms) {
    for (const Form* form : forms) {
        if (form->name == name) return *form;
    }
    optionsRefuse(name, "no such form; --help lists them");
}

struct Reader {
    OptionRows& rows;
    OptionReader options;
    const Form* form = nullptr;

    // The option that takes all words up to the next option ("-r a.pcap b.pcap"), or null.
    const FormOption* open = nullptr;
};

void takeForm(Reader& reader, std::span<const Form* const> forms) {
    reader.form = &findForm(reader.options.value, forms);
    traceSettings.updateInterval = reader.form->intervalSeconds;
    optionRowsAdd(reader.rows, kSourceOptions);
    optionRowsAdd(reader.rows, reader.form->options);
}

void takeOption(Reader& reader, std::span<const Form* const> forms) {
    const OptionRow* const row = reader.options.row;
    if (row == &kOptionVersion) printAndEnd(versionText(kWatchName));
    if (row == &kOptionHelp) {
        printAndEnd(reader.form != nullptr ? formHelp(*reader.form) : programHelp(forms));
    }
    const auto& option = static_cast<const FormOption&>(*row);
    const char* const fault = option.store(reader.options.value);
    if (fault != nullptr) optionRefuse(reader.options, fault);
    const bool takesMore =
        row->valueWord != nullptr && std::string_view(row->valueWord).ends_with("...");
    reader.open = takesMore ? &option : nullptr;
}

void takeWord(Reader& reader, std::span<const Form* const> forms) {
    const char* const word = reader.options.value;
    if (reader.form == nullptr) {
        takeForm(reader, forms);
    } else if (reader.open == nullptr || reader.options.optionsEnded) {
        optionsRefuse(word, std::string("not an option of ") + reader.form->name);
    } else if (const char* const fault = reader.open->store(word); fault != nullptr) {
        optionsRefuse(word, fault);
    }
}

// What forms call the source by.
void nameSource() {
    static std::string name;  // settings borrow it
    if (sourceSettings.files.empty()) return;
    name = optionsNameOf(sourceSettings.files);
    traceSettings.readFile = name.c_str();
}

void settle(const Form& form) {
    const bool hasInterface = traceSettings.interfaceName != nullptr;
    const bool hasFile = traceSettings.readFile != nullptr;
    if (hasInterface == hasFile) optionsRefuse(form.name, "takes one of -i and -r");
    if (hasInterface && (sourceSettings.from || sourceSettings.to)) {
        optionsRefuse(form.name, "takes --from and --to only with -r");
    }
    if (!hasInterface && sourceSettings.waitsForInterface) {
        optionsRefuse(form.name, "takes --wait-interface only with -i");
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

[[noreturn]] void refuse(std::string_view fault) {
    std::fprintf(stderr, "%s: %.*s\n", kWatchName, static_cast<int>(fault.size()), fault.data());
    std::exit(kUsageStatus);
}

}  // namespace

void optionsRefuse(std::string_view word, std::string_view what) {
    refuse(std::string(word) + ": " + std::string(what));
}

const char* optionsStoreTime(const char* value, std::optional<CaptureTime>* out) {
    CaptureTime time;
    if (!captureTimeParse(value, &time)) {
        return "not a time: 2026-11-25T14:03, with seconds or a zone if need be, or 14:03";
    }
    *out = time;
    return nullptr;
}

std::string optionsNameOf(const std::vector<std::string>& files) {
    if (files.size() < 2) return files.empty() ? "" : files[0];
    return files[0] + " and " + std::to_string(files.size() - 1) + " more";
}

bool optionsAreStrict() {
    return isStrict;
}

const Form& optionsParse(int argc, char* const* argv, std::span<const Form* const> forms) {
    const std::span<char* const> arguments(argv, static_cast<size_t>(argc));
    OptionRows rows = {&kOptionHelp, &kOptionVersion};
    Reader reader{.rows = rows, .options = {.rows = rows, .rest = arguments}};
    // The program's name may be missing.
    if (!arguments.empty()) reader.options.rest = arguments.subspan(1);
    while (optionNext(reader.options)) {
        if (reader.options.row != nullptr) {
            takeOption(reader, forms);
        } else {
            takeWord(reader, forms);
        }
    }
    if (!reader.options.fault.empty()) refuse(reader.options.fault);
    if (reader.form == nullptr) optionsRefuse("FORM", "missing; --help lists the forms");
    settle(*reader.form);
    return *reader.form;
}
