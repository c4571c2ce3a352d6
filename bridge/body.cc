#include "bridge/body.h"

#include <algorithm>
#include <cstring>

#include "programs/text.h"

namespace {

constexpr const char* kMarkField = "_bridge";

// An image begins with its length and these bytes, both big-endian.
constexpr uint32_t kImageMagic = 0x9955eeaa;
constexpr size_t kImageHeadBytes = 8;

uint32_t wordAt(std::string_view bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = at; i < at + 4; ++i) {
        word = word << 8 | static_cast<uint8_t>(bytes[i]);
    }
    return word;
}

// Calls `take` with each group; it says whether to go on.
template <typename Take>
void eachGroup(std::string_view path, Take take) {
    while (!path.empty()) {
        const size_t comma = path.find(',');
        if (!take(path.substr(0, comma))) return;
        path = comma == std::string_view::npos ? std::string_view() : path.substr(comma + 1);
    }
}

// False for a message without one. A field of that name that isn't a mark counts as none.
bool markRead(pelmoMsg* message, BridgeMark& mark) {
    pelmoMsg* field = nullptr;
    if (pelmoMsg_GetMsg(message, kMarkField, &field, 0) != kStatusSuccess || field == nullptr)
        return false;
    const char* path = nullptr;
    uint32_t repeat = 0;
    if (pelmoMsg_GetString(field, "path", &path, 0) != kStatusSuccess || path == nullptr)
        return false;
    if (!pathIsGood(path)) return false;
    mark.path = path;
    if (pelmoMsg_GetU64(field, "sequence", &mark.sequence, 0) != kStatusSuccess) mark.sequence = 0;
    mark.mayBeRepeat =
        pelmoMsg_GetBool(field, "repeat", &repeat, 0) == kStatusSuccess && repeat != 0;
    return true;
}

pelmoStatus writeForm(BodyCodec& codec, pelmoMsg* message, std::string& body) {
    body.clear();
    if (codec.form == BodyForm::kJson) return jsonWriteMessage(codec.writer, message, {}, body);
    uint32_t fields = 0;  // the image of a message that is corrupt isn't handed on
    uint32_t sizeBytes = 0;
    const void* bytes = nullptr;
    pelmoStatus status = pelmoMsg_GetNumFields(message, &fields);
    if (status == kStatusSuccess) status = pelmoMsg_GetAsBytes(message, &bytes);
    if (status == kStatusSuccess) status = pelmoMsg_GetByteSize(message, &sizeBytes);
    if (status == kStatusSuccess) body.assign(static_cast<const char*>(bytes), sizeBytes);
    return status;
}

pelmoStatus copyWithoutMark(pelmoMsg* message, OwnedMessage& out) {
    pelmoMsg* copy = nullptr;
    pelmoStatus status = pelmoMsg_CreateCopy(message, &copy);
    if (status != kStatusSuccess) return status;
    out.reset(copy);
    status = pelmoMsg_RemoveFieldEx(copy, kMarkField, 0);
    const char* text = nullptr;
    if (status == kStatusSuccess && pelmoMsg_GetSendSubject(message, &text) == kStatusSuccess) {
        status = pelmoMsg_SetSendSubject(copy, text);
    }
    if (status == kStatusSuccess && pelmoMsg_GetReplySubject(message, &text) == kStatusSuccess) {
        status = pelmoMsg_SetReplySubject(copy, text);
    }
    return status;
}

const char* readWire(std::string_view body, pelmoMsg** out) {
    if (wordAt(body, 0) != body.size()) return "a message of another length than its body";
    if (pelmoMsg_CreateFromBytes(out, body.data()) != kStatusSuccess)
        return "not to be taken as a message";
    uint32_t fields = 0;
    return pelmoMsg_GetNumFields(*out, &fields) == kStatusSuccess ? nullptr : "a corrupt message";
}

bool isWire(std::string_view body) {
    return body.size() >= kImageHeadBytes && wordAt(body, 4) == kImageMagic;
}

}  // namespace

bool groupNameIsGood(std::string_view name) {
    const auto isGood = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') || character == '-' || character == '_';
    };
    return !name.empty() && name.size() <= kMostGroupBytes && std::ranges::all_of(name, isGood);
}

bool pathIsGood(std::string_view path) {
    size_t groups = 0;
    bool isGood = !path.ends_with(',');
    eachGroup(path, [&](std::string_view group) {
        isGood &= groupNameIsGood(group) && ++groups <= kMostPathGroups;
        return isGood;
    });
    return isGood;
}

bool pathEndsAt(std::string_view path, std::string_view group) {
    size_t groups = 0;
    bool isIn = false;
    eachGroup(path, [&](std::string_view passed) {
        ++groups;
        isIn |= passed == group;
        return !isIn;
    });
    return isIn || groups >= kMostPathGroups;
}

void pathAdd(std::string& path, std::string_view group) {
    if (!path.empty()) path += ',';
    path += group;
}

pelmoStatus bodyWrite(BodyCodec& codec, pelmoMsg* message, std::string& body, BridgeMark& mark) {
    mark = BridgeMark{};
    if (!markRead(message, mark)) return writeForm(codec, message, body);
    OwnedMessage bare;
    const pelmoStatus status = copyWithoutMark(message, bare);
    return status == kStatusSuccess ? writeForm(codec, bare.get(), body) : status;
}

OwnedMessage bodyRead(BodyCodec& codec, std::string_view body, const char*& fault) {
    pelmoMsg* message = nullptr;
    if (isWire(body)) {
        fault = readWire(body, &message);
        OwnedMessage owned(message);
        return fault == nullptr ? std::move(owned) : nullptr;
    }
    OwnedMessage owned = messageMake();
    fault = "no memory for a message";
    if (owned == nullptr) return nullptr;
    fault = "no message and no line of JSON";
    if (!body.starts_with('{')) return nullptr;
    fault = codec.reader.fault.c_str();
    if (!jsonReadMessage(codec.reader, body, owned.get())) {
        fault = codec.reader.fault.c_str();
        return nullptr;
    }
    fault = codec.reader.isLacking ? "a line that carries no whole message" : nullptr;
    return fault == nullptr ? std::move(owned) : nullptr;
}

pelmoStatus markAdd(pelmoMsg* message, const BridgeMark& mark) {
    OwnedMessage field = messageMake();
    if (field == nullptr) return kStatusNoMemory;
    pelmoStatus status = pelmoMsg_AddString(field.get(), "path", mark.path.c_str(), 0);
    if (status == kStatusSuccess)
        status = pelmoMsg_AddU64(field.get(), "sequence", mark.sequence, 0);
    if (status == kStatusSuccess && mark.mayBeRepeat)
        status = pelmoMsg_AddBool(field.get(), "repeat", 1, 0);
    // One that came along is not this bridge's.
    if (status == kStatusSuccess) {
        const pelmoStatus removed = pelmoMsg_RemoveFieldEx(message, kMarkField, 0);
        status = removed == kStatusNotFound ? kStatusSuccess : removed;
    }
    return status == kStatusSuccess ? pelmoMsg_AddMsg(message, kMarkField, field.get(), 0) : status;
}
