#include "bus/composer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "bus/common.h"
#include "programs/field_kind.h"
#include "programs/steady_time.h"

namespace {

bool readsLines(const BusSettings& settings) {
    return settings.lines || settings.json;
}

bool fail(const std::string& what, pelmoStatus status) {
    complain(what, status);
    return false;
}

std::string lineWords(const Composer& composer) {
    return "line " + std::to_string(composer.input.lineNumber);
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

// The line's own length, since it may hold a NUL.
pelmoStatus addLine(pelmoMsg* msg, std::string_view line) {
    FieldValue value;
    value.bytes = line;
    return fieldAdd(msg, *fieldKindByCode(FIELD_STRING), "line", 0, value);
}

bool failLine(const Composer& composer, const std::string& what) {
    complain(lineWords(composer) + ": " + what);
    return false;
}

// Lines without a time under --pace would all leave at once.
bool readTime(Composer& composer) {
    constexpr int64_t kMostSeconds = INT64_MAX / kSecond - 1;
    const std::string& text = composer.reader.time;
    if (text.empty()) return failLine(composer, "has no time");
    pelmoMsgDateTime time{};
    const char* const fault = dateTextParse(text, time);
    if (fault != nullptr) return failLine(composer, "time: " + std::string(fault));
    if (std::abs(time.seconds) > kMostSeconds) return failLine(composer, "time: out of range");
    composer.time = time.seconds * kSecond + time.nanoseconds;
    return true;
}

// Reads the line's message and, of one that isn't lacking, its time.
bool readJson(Composer& composer, pelmoMsg* msg, std::string_view line) {
    JsonReader& reader = composer.reader;
    if (!jsonReadMessage(reader, line, msg)) return failLine(composer, reader.fault);
    return reader.isLacking || !composer.settings.pace || readTime(composer);
}

bool addContent(Composer& composer, pelmoMsg* msg, std::string_view line) {
    const BusSettings& settings = composer.settings;
    const TextField* fault = nullptr;
    pelmoStatus status = textFieldsAdd(msg, settings.fields, &fault);
    if (status != kStatusSuccess) return fail(fault->word, status);
    if (settings.lines) status = addLine(msg, line);
    if (status != kStatusSuccess) return fail(lineWords(composer), status);
    return true;
}

// Where the message goes. Subjects that a line names are led elsewhere, or sent to on request only;
// those of the command line are used as they are. Null for what there isn't.
struct Addresses {
    std::string led, ledReply;
    const char* subject;
    const char* reply;
};

void findAddresses(Composer& composer, Addresses& out) {
    const BusSettings& settings = composer.settings;
    const std::string& own = composer.reader.subject;
    const std::string& ownReply = composer.reader.reply;
    const std::string prefix = settings.prefix != nullptr ? settings.prefix : "";
    out.led = prefix + own;
    out.ledReply = prefix + ownReply;
    out.subject = !own.empty()                 ? out.led.c_str()
                  : !settings.subjects.empty() ? settings.subjects[0]
                                               : nullptr;
    out.reply = !ownReply.empty() ? out.ledReply.c_str() : settings.reply;
    if (settings.to == nullptr) return;
    // Answers would go where the message itself must not.
    out.subject = settings.to;
    out.reply = settings.reply;
    composer.repliesLeftOut += ownReply.empty() ? 0 : 1;
}

bool address(Composer& composer, pelmoMsg* msg) {
    const BusSettings& settings = composer.settings;
    const bool isLed = settings.original || settings.prefix != nullptr || settings.to != nullptr;
    if (!isLed && !composer.reader.subject.empty()) {
        return failLine(composer,
                        "names a subject of its own, which needs --original, --prefix or --to");
    }
    Addresses to;
    findAddresses(composer, to);
    if (to.subject == nullptr)
        return failLine(composer, "names no subject, and no SUBJECT is given");
    composer.toInbox |= std::string_view(to.subject).starts_with("_INBOX");
    const std::string place = settings.json ? lineWords(composer) + ": " : "";
    pelmoStatus status = pelmoMsg_SetSendSubject(msg, to.subject);
    if (status != kStatusSuccess) return fail(place + "send " + to.subject, status);
    if (to.reply != nullptr) status = pelmoMsg_SetReplySubject(msg, to.reply);
    if (status != kStatusSuccess) return fail(place + "reply " + to.reply, status);
    return true;
}

bool addExtras(Composer& composer, ComposerSlot& slot) {
    const BusSettings& settings = composer.settings;
    pelmoStatus status = kStatusSuccess;
    if (!slot.isBuilt) {
        status = composerAddExtras(composer, slot.msg.get());
    } else if (settings.sequence) {
        status = pelmoMsg_UpdateU64(slot.msg.get(), "seq", composer.made + 1, 0);
    }
    return status == kStatusSuccess || fail("message", status);
}

// kNone for a line that carries no whole message.
ComposeResult build(Composer& composer, ComposerSlot& slot, std::string_view line) {
    constexpr ComposeResult kFailed = ComposeResult::kFailed;
    if (slot.msg == nullptr) slot.msg = messageMake();
    if (slot.msg == nullptr) return fail("message", kStatusNoMemory), kFailed;
    pelmoMsg* const msg = slot.msg.get();
    if (!slot.isBuilt) {
        pelmoMsg_Reset(msg);
        if (composer.settings.json && !readJson(composer, msg, line)) return kFailed;
        if (composer.reader.isLacking) return ++composer.lacking, ComposeResult::kNone;
        if (!addContent(composer, msg, line) || !address(composer, msg)) return kFailed;
    }
    if (!addExtras(composer, slot)) return kFailed;
    slot.isBuilt = !readsLines(composer.settings);
    ++composer.made;
    return ComposeResult::kMade;
}

ComposeResult readLine(Composer& composer, bool mayWait, std::string_view& line) {
    switch (lineInputNext(composer.input, mayWait, line)) {
        case LineResult::kLine:
            return ComposeResult::kMade;
        case LineResult::kNone:
            return ComposeResult::kNone;
        case LineResult::kEnd:
            return ComposeResult::kEnd;
        case LineResult::kStopped:
            return ComposeResult::kStopped;
        case LineResult::kTooLong:
            complain("line " + std::to_string(composer.input.lineNumber + 1) + ": too long",
                     kStatusInvalidSize);
            return ComposeResult::kFailed;
        case LineResult::kFailed:
            break;
    }
    complain(std::string("standard input: ") + std::strerror(errno), kStatusIoFailed);
    return ComposeResult::kFailed;
}

}  // namespace

Composer composerOpen(const BusSettings& settings, uint64_t most) {
    Composer composer{settings, most};
    if (settings.sizeBytes) composer.pad.assign(*settings.sizeBytes, '\0');
    return composer;
}

pelmoStatus composerAddExtras(Composer& composer, pelmoMsg* msg) {
    pelmoStatus status = kStatusSuccess;
    if (composer.settings.sizeBytes) {
        status = pelmoMsg_AddOpaque(msg, "pad", composer.pad.data(),
                                    static_cast<uint32_t>(composer.pad.size()), 0);
    }
    if (status == kStatusSuccess && composer.settings.sequence) {
        // A line of JSON may have brought one.
        status = pelmoMsg_UpdateU64(msg, "seq", composer.made + 1, 0);
    }
    return status;
}

ComposeResult composerNext(Composer& composer, ComposerSlot& slot, bool mayWait) {
    if (composer.made == composer.most) return ComposeResult::kEnd;
    for (;;) {
        std::string_view line;
        if (readsLines(composer.settings)) {
            const ComposeResult result = readLine(composer, mayWait, line);
            if (result != ComposeResult::kMade) return result;
        }
        if (composer.settings.json && isBlank(line)) continue;
        const ComposeResult result = build(composer, slot, line);
        if (result != ComposeResult::kNone) return result;
    }
}
