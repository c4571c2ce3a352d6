#include "bridge/body.h"

#include <algorithm>
#include <span>

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
bool markRead(pelmo::MessageView message, BridgeMark& mark) {
    const auto field = message.get<pelmo::MessageView>(kMarkField);
    if (!field || field->raw() == nullptr) return false;
    const auto path = field->get<std::string>("path");
    if (!path || !pathIsGood(*path)) return false;
    mark.path = *path;
    mark.sequence = field->get<uint64_t>("sequence").value_or(0);
    mark.mayBeRepeat = field->get<bool>("repeat").value_or(false);
    return true;
}

pelmoStatus writeForm(BodyCodec& codec, pelmo::MessageView message, std::string& body) {
    body.clear();
    if (codec.form == BodyForm::kJson) return jsonWriteMessage(message.raw(), {}, body);
    uint32_t fields = 0;  // the image of a message that is corrupt isn't handed on
    const pelmoStatus status = pelmoMsg_GetNumFields(message.raw(), &fields);
    if (status != kStatusSuccess) return status;
    const pelmo::Bytes bytes = message.bytes();
    body.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return bytes.empty() ? kStatusNoMemory : kStatusSuccess;
}

pelmo::Result<pelmo::Message> copyWithoutMark(pelmo::MessageView message) {
    auto copy = pelmo::Message::copy(message);
    if (!copy) return copy;
    const pelmoStatus status = pelmoMsg_RemoveFieldEx(copy->raw(), kMarkField, 0);
    if (status != kStatusSuccess) return pelmo::Error(status);
    if (!message.subject().empty()) copy->to(message.subject());
    if (!message.replySubject().empty()) copy->replyTo(message.replySubject());
    return copy;
}

std::optional<pelmo::Message> readWire(std::string_view body, const char*& fault) {
    fault = "a message of another length than its body";
    if (wordAt(body, 0) != body.size()) return std::nullopt;
    auto made = pelmo::Message::fromBytes(std::as_bytes(std::span(body)));
    uint32_t fields = 0;
    fault = "a corrupt message";
    if (!made || pelmoMsg_GetNumFields(made->raw(), &fields) != kStatusSuccess) return std::nullopt;
    return std::move(*made);
}

std::optional<pelmo::Message> readJson(BodyCodec& codec,
                                       std::string_view body,
                                       const char*& fault) {
    pelmo::Message made;
    fault = "no memory for a message";
    if (made.rawStatus() != kStatusSuccess) return std::nullopt;
    const bool isRead = jsonReadMessage(codec.reader, body, made.raw());
    fault = isRead ? "a line that carries no whole message" : codec.reader.fault.c_str();
    if (!isRead || codec.reader.isLacking) return std::nullopt;
    return made;
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

pelmoStatus bodyWrite(BodyCodec& codec,
                      pelmo::MessageView message,
                      std::string& body,
                      BridgeMark& mark) {
    mark = BridgeMark{};
    if (!markRead(message, mark)) return writeForm(codec, message, body);
    const auto bare = copyWithoutMark(message);
    if (!bare) return bare.error().status();
    const pelmoStatus status = bare->rawStatus();
    return status == kStatusSuccess ? writeForm(codec, pelmo::MessageView(bare->raw()), body)
                                    : status;
}

std::optional<pelmo::Message> bodyRead(BodyCodec& codec,
                                       std::string_view body,
                                       const char*& fault) {
    if (isWire(body)) return readWire(body, fault);
    if (body.starts_with('{')) return readJson(codec, body, fault);
    fault = "no message and no line of JSON";
    return std::nullopt;
}

void markAdd(pelmo::Message& field, pelmo::Message& message, const BridgeMark& mark) {
    field.reset();
    field.add("path", mark.path).add("sequence", mark.sequence);
    if (mark.mayBeRepeat) field.add("repeat", true);
    // Statuses say only whether there was one, or what the addition will say too.
    (void)pelmoMsg_RemoveFieldEx(message.raw(), kMarkField, 0);
    message.add(kMarkField, field);
}
