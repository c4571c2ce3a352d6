#include "bus/composer.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include "bus/common.h"

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

bool addContent(Composer& composer, pelmoMsg* msg, std::string_view line) {
    const BusSettings& settings = composer.settings;
    if (settings.json && !jsonReadMessage(composer.reader, line, msg)) {
        complain(lineWords(composer) + ": " + composer.reader.fault);
        return false;
    }
    const TextField* fault = nullptr;
    pelmoStatus status = textFieldsAdd(msg, settings.fields, &fault);
    if (status != kStatusSuccess) return fail(fault->word, status);
    if (settings.lines) status = addLine(msg, line);
    if (status != kStatusSuccess) return fail(lineWords(composer), status);
    return true;
}

bool address(Composer& composer, pelmoMsg* msg) {
    const std::string& ownSubject = composer.reader.subject;
    const std::string& ownReply = composer.reader.reply;
    const char* subject = ownSubject.empty() ? composer.settings.subjects[0] : ownSubject.c_str();
    const char* reply = ownReply.empty() ? composer.settings.reply : ownReply.c_str();
    composer.toInbox |= std::string_view(subject).starts_with("_INBOX");
    pelmoStatus status = pelmoMsg_SetSendSubject(msg, subject);
    if (status != kStatusSuccess) return fail(std::string("send ") + subject, status);
    if (reply != nullptr) status = pelmoMsg_SetReplySubject(msg, reply);
    if (status != kStatusSuccess) return fail(std::string("reply ") + reply, status);
    return true;
}

bool addExtras(Composer& composer, ComposerSlot& slot) {
    const BusSettings& settings = composer.settings;
    pelmoStatus status = kStatusSuccess;
    if (!slot.stands) {
        status = composerAddExtras(composer, slot.msg.get());
    } else if (settings.sequence) {
        status = pelmoMsg_UpdateU64(slot.msg.get(), "seq", composer.made + 1, 0);
    }
    return status == kStatusSuccess || fail("message", status);
}

bool build(Composer& composer, ComposerSlot& slot, std::string_view line) {
    if (slot.msg == nullptr) slot.msg = messageMake();
    if (slot.msg == nullptr) return fail("message", kStatusNoMemory);
    if (!slot.stands) {
        pelmoMsg_Reset(slot.msg.get());
        if (!addContent(composer, slot.msg.get(), line)) return false;
        if (!address(composer, slot.msg.get())) return false;
    }
    if (!addExtras(composer, slot)) return false;
    slot.stands = !readsLines(composer.settings);
    return true;
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
    std::string_view line;
    if (readsLines(composer.settings)) {
        do {
            const ComposeResult result = readLine(composer, mayWait, line);
            if (result != ComposeResult::kMade) return result;
        } while (composer.settings.json && isBlank(line));
    }
    if (!build(composer, slot, line)) return ComposeResult::kFailed;
    ++composer.made;
    return ComposeResult::kMade;
}
