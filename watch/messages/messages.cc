#include "watch/messages/messages.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/log.h"
#include "lib/base/text_sink.h"
#include "lib/containers/sublist.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message.h"
#include "lib/msg/oska.h"
#include "lib/pelmo.h"
#include "programs/json.h"
#include "programs/message_json.h"
#include "programs/number.h"
#include "trace/settings.h"
#include "watch/core/stop.h"
#include "watch/core/text.h"
#include "watch/json/json_parts.h"
#include "watch/messages/assembly.h"

namespace {

constexpr size_t kOutputBytes = 256 << 10;

struct MessagesForm {
    // Of the command line.
    SubjectList* patterns = nullptr;
    bool hasSender = false;
    uint32_t senderIp = 0;
    uint16_t senderPort = 0;  // 0: any
    std::vector<std::string> fields;
    unsigned long long count = 0;  // 0: all
    bool asText = false;
    bool pointToPoint = false;

    // Of the thread that takes packets.
    Assembly assembly;
    MessageJsonWriter writer;
    TextSink output;
    std::string text;
    unsigned long long shown = 0;
    bool isFull = false;  // the count is reached
    bool failed = false;
};

MessagesForm form;

// ---- Options ----

const char* storeSubject(const char* value) {
    uint8_t packed[kSubjectMaxBytes];
    if (form.patterns == nullptr) form.patterns = sublistCreate();
    if (subjectFromText(packed, sizeof packed, value) < 0) return "not a subject or a pattern";
    return sublistAdd(form.patterns, packed, &form, nullptr) ? nullptr : "out of memory";
}

const char* storeSender(const char* value) {
    const std::string text = value;
    const size_t colon = text.find(':');
    in_addr address{};
    if (inet_pton(AF_INET, text.substr(0, colon).c_str(), &address) != 1) {
        return "not an address, or an address and a SCid: 10.0.0.1 or 10.0.0.1:7001";
    }
    if (colon != std::string::npos) {
        uint16_t scid = 0;
        const char* const wrong = numberParse(value + colon + 1, 1, UINT16_MAX, scid);
        if (wrong != nullptr) return wrong;
        form.senderPort = htons(scid);
    }
    form.hasSender = true;
    form.senderIp = address.s_addr;
    return nullptr;
}

const char* storeFields(const char* value) {
    for (std::string_view left = value; !left.empty();) {
        const size_t length = std::min(left.find(','), left.size());
        if (length > 0) form.fields.emplace_back(left.substr(0, length));
        left.remove_prefix(std::min(length + 1, left.size()));
    }
    return form.fields.empty() ? "names no field" : nullptr;
}

const char* storeCount(const char* value) {
    return numberParse(value, 1, UINT64_MAX, form.count);
}

const char* storeText(const char* /*none*/) {
    form.asText = true;
    return nullptr;
}

const char* storeRepeats(const char* /*none*/) {
    form.assembly.wantsRepeats = true;
    return nullptr;
}

const char* storePointToPoint(const char* /*none*/) {
    form.pointToPoint = true;
    return nullptr;
}

constexpr FormOption kOptions[] = {
    {{"--subject", "PATTERN", "only messages of these subjects, * and > as on the bus; repeatable"},
     storeSubject},
    {{"--sender", "ADDRESS", "only messages of this sender; ADDRESS:SCID is one of a host's"},
     storeSender},
    {{"--fields", "NAMES", "of each message only these fields, separated by commas"}, storeFields},
    {{"--count", "N", "end after so many lines"}, storeCount},
    {{"--text", nullptr, "the library's text of a message in place of JSON"}, storeText},
    {{"--repeats", nullptr, "also what was sent again"}, storeRepeats},
    {{"--point-to-point", nullptr, "also the packets of point-to-point data, as numbers and bytes"},
     storePointToPoint},
};

// ---- Output ----

bool drain() {
    const std::string& text = form.text;
    const bool written = textSinkWrite(&form.output, text.data(), text.size()) == text.size();
    const int error = form.output.error;
    form.text.clear();
    if (written) return true;
    if (!form.failed && error != EPIPE) {
        logPrint("unable to write messages: %s.", std::strerror(error));
    }
    form.failed = true;
    stopAsk();
    return false;
}

void endLine() {
    form.text += '\n';
    if (form.count != 0 && ++form.shown == form.count) {
        form.isFull = true;
        stopAsk();
    }
    if (form.text.size() >= kOutputBytes) (void)drain();
}

void addNumber(const char* key, uint64_t number) {
    form.text += key;
    form.text += std::to_string(number);
}

void addAddress(const char* key, uint32_t address) {
    char text[kAddressTextBytes];
    form.text += key;
    form.text += addressText(address, text);
}

// The members that all lines begin with, without the object's last brace.
void addPlace(const BusPacket& packet, const char* otherEnd) {
    char time[kJsonTimeBytes];
    form.text += "{\"time\":\"";
    form.text += jsonTimeText(packet.time, time);
    addNumber("\",\"port\":", ntohs(packet.dstPort));
    addAddress((std::string(",\"") + otherEnd + "\":\"").c_str(), packet.dstIp);
    addAddress("\",\"sender\":\"", packet.srcIp);
    form.text += "\",\"scid\":";
    form.text += packet.srcPort == 0 ? "null" : std::to_string(ntohs(packet.srcPort));
    addNumber(",\"sequence\":", packet.number);
}

void addTextPlace(const BusPacket& packet) {
    char time[kJsonTimeBytes];
    form.text += jsonTimeText(packet.time, time);
    addNumber(" ", ntohs(packet.dstPort));
    addAddress(" ", packet.dstIp);
    addAddress(" ", packet.srcIp);
    form.text += packet.srcPort == 0 ? ":-" : ":" + std::to_string(ntohs(packet.srcPort));
    addNumber(" ", packet.number);
    form.text += ' ';
}

// ---- Messages ----

bool isWantedSender(const BusPacket& packet) {
    return !form.hasSender || (packet.srcIp == form.senderIp &&
                               (form.senderPort == 0 || packet.srcPort == form.senderPort));
}

// Without patterns all; with them a message without a subject is none of them.
bool isWantedSubject(const char* subject) {
    if (form.patterns == nullptr) return true;
    uint8_t packed[kSubjectMaxBytes];
    if (subject == nullptr || subjectFromText(packed, sizeof packed, subject) <= 3) return false;
    return sublistMatch(form.patterns, packed) != nullptr;
}

// Opens the envelope where there is one: its last field is "data", a message.
bool hasEnvelope(pelmoMsg* msg) {
    uint32_t count = 0;
    pelmoMsgField field;
    return pelmoMsg_GetNumFields(msg, &count) == kStatusSuccess && count > 0 &&
           pelmoMsg_GetFieldByIndex(msg, &field, count - 1) == kStatusSuccess &&
           field.type == FIELD_MSG && field.name != nullptr && std::strcmp(field.name, "data") == 0;
}

// What the envelope says, or fields of the envelope's names where there is none.
struct Subjects {
    std::string subject, reply;
    bool hasSubject = false, hasReply = false;
};

// A message without an envelope has its subject as one of its fields.
void takeOutSubjects(pelmoMsg* msg, Subjects* out) {
    const char* text = nullptr;
    if (pelmoMsg_GetString(msg, "sub", &text, 0) == kStatusSuccess && text != nullptr) {
        out->subject = text;
        out->hasSubject = true;
        if (out->subject.starts_with('[') && out->subject.ends_with(']')) {
            out->subject = out->subject.substr(1, out->subject.size() - 2);
        }
    }
    if (pelmoMsg_GetString(msg, "return", &text, 0) == kStatusSuccess && text != nullptr) {
        out->reply = text;
        out->hasReply = true;
    }
    for (const char* const name : {"sub", "return", "mtype", "cid"})
        (void)pelmoMsg_RemoveFieldEx(msg, name, 0);
}

Subjects subjectsOf(pelmoMsg* msg) {
    Subjects found;
    const bool isOpen = hasEnvelope(msg) && msgOpenEnvelope(msg) == kStatusSuccess;
    if (!isOpen) {
        takeOutSubjects(msg, &found);
        return found;
    }
    const char* text = nullptr;
    if (pelmoMsg_GetSendSubject(msg, &text) == kStatusSuccess && text != nullptr) {
        found.subject = text;
        found.hasSubject = true;
    }
    if (pelmoMsg_GetReplySubject(msg, &text) == kStatusSuccess && text != nullptr) {
        found.reply = text;
        found.hasReply = true;
    }
    return found;
}

// A message of the wanted fields alone; null without memory.
OwnedMessage onlyFields(pelmoMsg* msg) {
    OwnedMessage chosen = messageMake();
    uint32_t count = 0;
    if (chosen == nullptr) return nullptr;
    (void)pelmoMsg_GetNumFields(msg, &count);
    for (uint32_t at = 0; at < count; ++at) {
        pelmoMsgField field;
        if (pelmoMsg_GetFieldByIndex(msg, &field, at) != kStatusSuccess) continue;
        const char* const name = field.name != nullptr ? field.name : "";
        if (std::ranges::count(form.fields, name) == 0) continue;
        if (pelmoMsg_AddField(chosen.get(), &field) != kStatusSuccess) return nullptr;
    }
    return chosen;
}

// The fields as `"fields":[...]}`, or why there are none.
void addFields(pelmoMsg* msg) {
    OwnedMessage chosen;
    if (!form.fields.empty()) {
        chosen = onlyFields(msg);
        if (chosen != nullptr) msg = chosen.get();
    }
    const size_t before = form.text.size();
    const pelmoStatus status = jsonWriteFields(form.writer, msg, form.text);
    if (status == kStatusSuccess) return;
    form.text.resize(before);
    form.text += "\"fault\":\"";
    form.text += pelmoStatus_GetText(status);
    form.text += "\"}";
}

void addSubject(const char* key, const std::string& subject) {
    form.text += key;
    jsonTextAdd(form.text, subject);
}

void showJson(const AssembledMessage& message, pelmoMsg* msg, const Subjects& subjects) {
    addPlace(*message.packet, "group");
    if (message.isRepeated) form.text += ",\"repeated\":true";
    if (subjects.hasSubject) addSubject(",\"subject\":", subjects.subject);
    if (subjects.hasReply) addSubject(",\"reply\":", subjects.reply);
    form.text += ',';
    addFields(msg);
    endLine();
}

// Line breaks and other control characters of texts are shown as \xNN, so that a line is a message.
void showText(const AssembledMessage& message, pelmoMsg* msg, const Subjects& subjects) {
    addTextPlace(*message.packet);
    const char* text = nullptr;
    OwnedMessage chosen;
    if (!form.fields.empty()) chosen = onlyFields(msg);
    if (pelmoMsg_ConvertToString(chosen != nullptr ? chosen.get() : msg, &text) != kStatusSuccess) {
        text = "(corrupt)";
    }
    const std::string whole = (subjects.hasSubject ? subjects.subject : "-") + " " + text;
    std::string safe(whole.size() * 4 + 1, '\0');
    form.text += safeText(whole, safe.data(), safe.size());
    endLine();
}

const char* wordsOf(Incomplete reason) {
    switch (reason) {
        case Incomplete::kPartMissing:
            return "part_missing";
        case Incomplete::kCut:
            return "cut_by_the_capture";
        case Incomplete::kRunsOver:
            return "longer_than_its_packet";
        case Incomplete::kNoMessage:
            return "no_message";
        case Incomplete::kForgotten:
            return "waited_too_long";
        case Incomplete::kNo:
            break;
    }
    return "no";
}

// What there is of a message can't be read as one.
void showIncomplete(const AssembledMessage& message) {
    if (form.patterns != nullptr) return;  // its subject isn't known
    if (form.asText) {
        addTextPlace(*message.packet);
        form.text += std::string("(incomplete: ") + wordsOf(message.incomplete) + ", ";
        addNumber("", message.bytes.size());
        form.text += " bytes)";
        return endLine();
    }
    addPlace(*message.packet, "group");
    if (message.isRepeated) form.text += ",\"repeated\":true";
    form.text += std::string(",\"incomplete\":\"") + wordsOf(message.incomplete) + "\"";
    addNumber(",\"bytes\":", message.bytes.size());
    if (message.wantedBytes != 0) addNumber(",\"message_bytes\":", message.wantedBytes);
    form.text += '}';
    endLine();
}

void show(const AssembledMessage& message, void* /*context*/) {
    if (form.isFull || form.failed || !isWantedSender(*message.packet)) return;
    if (message.incomplete != Incomplete::kNo) return showIncomplete(message);
    pelmoMsg* made = nullptr;
    if (pelmoMsg_CreateFromBytes(&made, message.bytes.data()) != kStatusSuccess) {
        AssembledMessage wrong = message;
        wrong.incomplete = Incomplete::kNoMessage;
        return showIncomplete(wrong);
    }
    const OwnedMessage msg(made);
    const Subjects subjects = subjectsOf(made);
    if (!isWantedSubject(subjects.hasSubject ? subjects.subject.c_str() : nullptr)) return;
    if (form.asText) {
        showText(message, made, subjects);
    } else {
        showJson(message, made, subjects);
    }
}

void showPointToPoint(const BusPacket& packet) {
    if (!isWantedSender(packet) || form.isFull || form.patterns != nullptr) return;
    if (form.asText) {
        addTextPlace(packet);
        addNumber("(point to point, ", packet.payload.size());
        form.text += " bytes)";
        return endLine();
    }
    addPlace(packet, "receiver");
    addNumber(",\"point_to_point_bytes\":", packet.payload.size());
    form.text += '}';
    endLine();
}

// ---- The run ----

bool start() {
    const int descriptor = dup(STDOUT_FILENO);
    if (descriptor < 0) {
        logPrint("unable to use the standard output: %s.", std::strerror(errno));
        return false;
    }
    textSinkSet(&form.output, descriptor);
    jsonAcceptOwnTypes();
    form.assembly.handOn = show;
    return true;
}

void takePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    BusPacket packet;
    if (!busPacketRead(time, {ip, length}, &packet)) return;
    if (packet.type == kOskaPtpData && form.pointToPoint) showPointToPoint(packet);
    assemblyTake(form.assembly, packet);
    if (traceSettings.liveCapture && !form.text.empty()) (void)drain();
}

bool end(bool /*isWhole*/) {
    if (!form.failed) assemblyEnd(form.assembly);
    if (!form.failed) (void)drain();
    textSinkSet(&form.output, -1);
    form.writer.scratch = nullptr;
    sublistDestroy(form.patterns);
    form.patterns = nullptr;
    return !form.failed;
}

}  // namespace

const Form kMessagesForm = {
    .name = "messages",
    .summary = "What was in the messages, a line each",
    .options = kOptions,
    .settle = nullptr,
    .prepare = nullptr,
    .start = start,
    .packet = takePacket,
    .snapshot = nullptr,
    .end = end,
    .showsProgress = true,
    .staysOpen = false,
};
