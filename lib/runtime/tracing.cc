#include "lib/runtime/tracing.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/base/text.h"
#include "lib/containers/subject.h"
#include "lib/containers/sublist.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/text.h"

namespace {

constexpr size_t kMessageLineBytes = 1024;

// Rows are indexed by module number. Modules without calls of their own have names too.
constexpr std::array<const char*, kTraceModules> kModuleNames = {
    "DQ",         "DQ_DETAIL", "ADV",    "RECV",  "PELMO", "EVENTS", "MSG",
    "MSG_DETAIL", "QUEUE",     "QGROUP", "TPORT", "DISP",  "CM",     "FT"};

struct TracingState {
    Lock lock = PELMO_LOCK_READY(LockRank::kTrace);

    // Null: no filter. The values are the filters' texts, on the heap. A match uses the list's own
    // array, hence the lock.
    SubjectList* filters[kTraceModules] PELMO_GUARDED_BY(lock) = {};

    FILE* stream PELMO_GUARDED_BY(lock) = nullptr;  // the file that the settings named; null: none
};

constinit TracingState state;

bool isModuleOn(uint32_t module) {
    return module < kTraceModules && traceWants(static_cast<TraceModuleId>(module));
}

[[gnu::format(printf, 2, 3)]] void Trace_Line(uint32_t module, const char* format, ...) {
    if (!isModuleOn(module)) return;
    va_list arguments;
    va_start(arguments, format);
    {
        const LockGuard guard(state.lock);
        logPrintModule(kModuleNames[module], format, arguments);
    }
    va_end(arguments);
}

// Runs before any other thread starts: a thread that sees a module switched on need not see what
// was written just before.
[[maybe_unused]] const bool filledIn = [] {
    traceOps.write = Trace_Line;
    return true;
}();

// Settings

// The first module whose name begins with this text, or kTraceModules.
uint32_t moduleOf(std::string_view name) {
    const auto* const found = std::ranges::find_if(kModuleNames, [name](const char* full) {
        return std::string_view(full).starts_with(name);
    });
    return static_cast<uint32_t>(found - kModuleNames.begin());
}

char* copyOf(std::string_view text) {
    auto* const copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// Takes ownership of the text on success.
pelmoStatus addFilterTextLocked(uint32_t module, char* text) PELMO_REQUIRES(state.lock) {
    uint8_t subject[kSubjectMaxBytes];
    if (subjectFromText(subject, sizeof subject, text) < 0) return kStatusInvalidSubject;
    SubjectList*& filter = state.filters[module];
    if (filter == nullptr) filter = sublistCreate();
    if (filter == nullptr) return kStatusNoMemory;
    return sublistAdd(filter, subject, text, nullptr) ? kStatusSuccess : kStatusNoMemory;
}

pelmoStatus addFilterLocked(uint32_t module, std::string_view subject) PELMO_REQUIRES(state.lock) {
    char* const text = copyOf(subject);
    if (text == nullptr) return kStatusNoMemory;
    const pelmoStatus status = addFilterTextLocked(module, text);
    if (status != kStatusSuccess) std::free(text);
    return status;
}

// Parses one item: a module, or a module, "=" and a subject.
pelmoStatus takeItemLocked(std::string_view item) PELMO_REQUIRES(state.lock) {
    if (item.empty()) return kStatusInvalidArgument;
    const size_t nameLength = std::min(item.find('='), item.size());
    const uint32_t module = moduleOf(item.substr(0, nameLength));
    if (module == kTraceModules) return kStatusNotFound;
    traceOps.enabled[module] = 1;
    if (nameLength == item.size()) return kStatusSuccess;
    return addFilterLocked(module, item.substr(nameLength + 1));
}

pelmoStatus takeModulesLocked(std::string_view list) PELMO_REQUIRES(state.lock) {
    for (;;) {
        const size_t itemLength = std::min(list.find(','), list.size());
        const pelmoStatus status = takeItemLocked(list.substr(0, itemLength));
        if (status != kStatusSuccess || itemLength == list.size()) return status;
        list.remove_prefix(itemLength + 1);
    }
}

bool isFile(const FILE* stream) {
    return stream != nullptr && stream != stderr && stream != stdout;
}

FILE* openOutput(const char* file) {
    const std::string_view name = file;
    if (name == "stderr" || name == "STDERR") return stderr;
    if (name == "stdout" || name == "STDOUT") return stdout;
    return std::fopen(file, "ae");
}

pelmoStatus directOutputLocked(const char* file) PELMO_REQUIRES(state.lock) {
    FILE* const stream = openOutput(file);
    if (stream == nullptr) return kStatusInvalidArgument;
    FILE* const former = std::exchange(state.stream, stream);
    logSetStream(stream);
    if (isFile(former)) std::fclose(former);
    return kStatusSuccess;
}

void freeFilterLocked(uint32_t module) PELMO_REQUIRES(state.lock) {
    SubjectList* const filter = std::exchange(state.filters[module], nullptr);
    const Dpa* const texts = filter != nullptr ? sublistAll(filter) : nullptr;
    for (uint32_t i = 0; texts != nullptr && i < texts->count; ++i)
        std::free(texts->items[i]);
    sublistDestroy(filter);
}

// Message lines

// Null when the message has no such field. The bytes may come from outside.
pelmoStatus subjectOf(pelmoMsg* message, const uint8_t** out) {
    if (message->sendSubjectOffset != 0) {
        *out = msgImage(message) + message->sendSubjectOffset;
        return kStatusSuccess;
    }
    uint32_t position;
    pelmoMsgField field;
    pelmoStatus status = msgParse(message);
    if (status == kStatusSuccess) status = msgFind(message, "sub", 0, position);
    if (status == kStatusSuccess) status = msgReadField(message, position, field, NameWanted::kNo);
    if (status != kStatusSuccess || field.type != FIELD_SUBJECT) return kStatusInvalidSubject;
    *out = static_cast<const uint8_t*>(field.data.pointer);
    return kStatusSuccess;
}

// "<call>: (<subject>) <message>", cut to fit; `line` holds the call.
pelmoStatus printMessage(TraceModuleId module, char* line, pelmoMsg* message) {
    const uint8_t* subject = nullptr;
    pelmoStatus status = subjectOf(message, &subject);
    if (status != kStatusSuccess) return status;
    if (!Tracing_LetsThrough(module, subject)) return kStatusSuccess;

    char subjectText[kSubjectTextBytes] = "<NULL>";
    if (subject != nullptr && subjectToText(subjectText, sizeof subjectText, subject) == nullptr) {
        return kStatusInvalidSubject;
    }
    const char* messageText = nullptr;
    status = pelmoMsg_ConvertToString(message, &messageText);
    if (status != kStatusSuccess) return status;

    const size_t length = std::strlen(line);
    boundedFormat(line + length, kMessageLineBytes - length, ": (%s) %s", subjectText, messageText);
    Trace_Line(module, "%s", line);
    return kStatusSuccess;
}

}  // namespace

pelmoStatus Tracing_Start(const char* modules, const char* file, const char* banner) {
    if (modules == nullptr || *modules == '\0') return kStatusSuccess;
    const LockGuard guard(state.lock);
    pelmoStatus status = takeModulesLocked(modules);
    if (status == kStatusSuccess && file != nullptr && *file != '\0') {
        status = directOutputLocked(file);
    }
    if (status != kStatusSuccess) return status;
    logSetUtcStamp(true);
    traceOps.on = 1;
    if (banner != nullptr) logPrint("%s", banner);
    return kStatusSuccess;
}

void Tracing_Stop() {
    const LockGuard guard(state.lock);
    traceOps.on = 0;
    // The log stays with a stream of the process, which needs no close.
    if (!isFile(state.stream)) return;
    logSetStream(stderr);
    std::fclose(std::exchange(state.stream, nullptr));
}

void Tracing_Clear() {
    const LockGuard guard(state.lock);
    for (uint32_t module = 0; module < kTraceModules; ++module) {
        traceOps.enabled[module] = 0;
        freeFilterLocked(module);
    }
}

void Tracing_Show() {
    const LockGuard guard(state.lock);
    const char* const output = isFile(state.stream)     ? "file"
                               : state.stream == stdout ? "stdout"
                                                        : "stderr";
    std::fprintf(stderr, "Output directed to: %s\nMod\tVal\tFilter\n", output);
    for (uint32_t module = 0; module < kTraceModules; ++module) {
        std::fprintf(stderr, "%s\t%s\t", kModuleNames[module],
                     traceOps.enabled[module] != 0 ? "T" : "F");
        SubjectList* const filter = state.filters[module];
        const Dpa* const texts = filter != nullptr ? sublistAll(filter) : nullptr;
        if (filter == nullptr) std::fputs("None", stderr);
        for (uint32_t i = 0; texts != nullptr && i < texts->count; ++i) {
            std::fputs(static_cast<const char*>(texts->items[i]), stderr);
        }
        std::fputs("\n", stderr);
    }
}

bool Tracing_LetsThrough(TraceModuleId module, const uint8_t* subject) {
    const LockGuard guard(state.lock);
    SubjectList* const filter = state.filters[module];
    return filter == nullptr || (subject != nullptr && sublistMatch(filter, subject) != nullptr);
}

pelmoStatus Trace_Message(TraceModuleId module, pelmoMsg* message, const char* format, ...) {
    if (!isModuleOn(module)) return kStatusSuccess;
    if (!msgIsValid(message)) return kStatusInvalidMessage;
    char line[kMessageLineBytes];
    va_list arguments;
    va_start(arguments, format);
    boundedFormatList(line, sizeof line, format, arguments);
    va_end(arguments);

    // Building the line must not leave cached state in the message.
    const ReferenceMark mark = msgMark(message);
    const pelmoStatus status = printMessage(module, line, message);
    msgCutBack(message, mark);
    return status;
}
