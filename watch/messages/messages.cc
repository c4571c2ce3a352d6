#include "watch/messages/messages.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/log.h"
#include "lib/containers/subject.h"
#include "lib/containers/sublist.h"
#include "lib/msg/envelope_internal.h"
#include "lib/msg/message.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/oska.h"
#include "lib/pelmo.h"
#include "programs/json.h"
#include "programs/message_json.h"
#include "programs/number.h"
#include "programs/text.h"
#include "trace/settings.h"
#include "watch/core/form_output.h"
#include "watch/core/stop.h"
#include "watch/core/text.h"
#include "watch/json/json_parts.h"
#include "watch/messages/assembly.h"

namespace {

constexpr size_t kOutputBytes = 256 << 10;
constexpr uint32_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int kFractionDigits = 9;

// What lines begin with. The messages of a packet begin alike, so it is put together once.
struct Place {
    BusPacket packet = {};  // whose it is
    std::string text;
};

// What the places of a sender's packets share.
struct SenderText {
    AssemblyKey key = {};
    int16_t type = 0;
    std::string text;
};

// What the envelope says, or fields of the envelope's names where there is none. The texts are good
// until the next message.
struct Subjects {
    std::optional<std::string_view> subject, reply;
    bool hasEnvelope = false;
};

struct Reading {
    Subjects subjects;
    std::span<const uint8_t> records;  // of the fields
};

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
    OwnedMessage message;  // the one at hand, where its bytes alone don't do
    FormOutput output = {.what = "messages"};
    std::string text;
    Place place;
    std::array<SenderText, 1024> senders;  // by their hash; one that isn't here is put together
    int64_t second = 0;                    // whose text `time` is
    char time[kJsonTimeBytes];
    size_t timeLength = 0;
    char subject[kSubjectTextBytes];
    std::vector<uint32_t> positions;  // of the fields that are shown
    unsigned long long shown = 0;
    bool isFull = false;  // the count is reached
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

void drain() {
    if (!formOutputWrite(form.output, form.text)) stopAsk();
    form.text.clear();
}

void endLine() {
    form.text += '\n';
    if (form.count != 0 && ++form.shown == form.count) {
        form.isFull = true;
        stopAsk();
    }
    if (form.text.size() >= kOutputBytes) drain();
}

struct Digits {
    explicit Digits(uint64_t number)
        : length(static_cast<size_t>(std::to_chars(text, std::end(text), number).ptr - text)) {}
    // NOLINTNEXTLINE(google-explicit-constructor): it is a text wherever one is added
    operator std::string_view() const { return {text, length}; }

    char text[20];
    size_t length;
};

// As jsonTimeText has it, which is called once a second of the capture.
std::string_view timeText(TimeSpec time) {
    const int64_t second = int64_t{time.seconds} + time.nanoseconds / kNanosecondsPerSecond;
    if (form.timeLength == 0 || form.second != second) {
        form.second = second;
        form.timeLength = jsonTimeText(time, form.time).size();
    }
    char* const end = form.time + form.timeLength - 1;
    uint32_t left = time.nanoseconds % kNanosecondsPerSecond;
    for (char* at = end; at != end - kFractionDigits; left /= 10) {
        *--at = static_cast<char>('0' + left % 10);
    }
    return {form.time, form.timeLength};
}

bool beginAlike(const BusPacket& one, const BusPacket& other) {
    return one.number == other.number && one.srcIp == other.srcIp && one.dstIp == other.dstIp &&
           one.srcPort == other.srcPort && one.dstPort == other.dstPort && one.type == other.type &&
           one.time.seconds == other.time.seconds && one.time.nanoseconds == other.time.nanoseconds;
}

// From the end of the time to the packet's number.
void putSender(const BusPacket& packet, std::string& out) {
    char group[kAddressTextBytes];
    char sender[kAddressTextBytes];
    const Digits port(ntohs(packet.dstPort)), scid(ntohs(packet.srcPort));
    const bool hasScid = packet.srcPort != 0;
    const std::string_view groupText = addressText(packet.dstIp, group);
    const std::string_view senderText = addressText(packet.srcIp, sender);
    if (form.asText) {
        return textAdd(out, " ", port, " ", groupText, " ", senderText, ":",
                       hasScid ? std::string_view{scid} : "-", " ");
    }
    textAdd(out, "\",\"port\":", port,
            packet.type == kOskaPtpData ? ",\"receiver\":\"" : ",\"group\":\"", groupText,
            "\",\"sender\":\"", senderText,
            "\",\"scid\":", hasScid ? std::string_view{scid} : "null", ",\"sequence\":");
}

const std::string& senderText(const BusPacket& packet) {
    const AssemblyKey key = {packet.srcIp, packet.dstIp, packet.srcPort, packet.dstPort};
    SenderText& kept = form.senders[AssemblyKeyHash{}(key) % form.senders.size()];
    if (kept.text.empty() || kept.key != key || kept.type != packet.type) {
        kept = {key, packet.type, {}};
        putSender(packet, kept.text);
    }
    return kept.text;
}

// Of JSON it ends before the member's comma, of a text with a blank.
void putPlace(const BusPacket& packet, std::string& out) {
    textAdd(out, form.asText ? "" : "{\"time\":\"", timeText(packet.time), senderText(packet),
            Digits(packet.number), form.asText ? " " : "");
}

void addPlace(const BusPacket& packet) {
    Place& place = form.place;
    if (place.text.empty() || !beginAlike(place.packet, packet)) {
        place.packet = packet;
        place.packet.payload = {};
        place.text.clear();
        putPlace(packet, place.text);
    }
    form.text += place.text;
}

// ---- Messages ----

bool isWantedSender(const BusPacket& packet) {
    return !form.hasSender || (packet.srcIp == form.senderIp &&
                               (form.senderPort == 0 || packet.srcPort == form.senderPort));
}

// Without patterns all; with them a message without a subject is none of them.
bool isWantedSubject(const Subjects& subjects) {
    if (form.patterns == nullptr) return true;
    uint8_t packed[kSubjectMaxBytes];
    if (!subjects.subject) return false;
    const std::string text(*subjects.subject);
    if (subjectFromText(packed, sizeof packed, text.c_str()) <= 3) return false;
    return sublistMatch(form.patterns, packed) != nullptr;
}

std::string_view unpacked(const uint8_t* subject) {
    return {form.subject, subjectWriteText(form.subject, subject)};
}

std::optional<std::string_view> textOfField(pelmoMsg* msg, const char* name) {
    const char* text = nullptr;
    if (pelmoMsg_GetString(msg, name, &text, 0) != kStatusSuccess || text == nullptr) return {};
    return text;
}

// A message without an envelope has its subject as one of its fields.
std::optional<std::string_view> subjectOf(pelmoMsg* msg) {
    pelmoMsgField field;
    if (pelmoMsg_GetFieldEx(msg, "sub", &field, 0) != kStatusSuccess) return {};
    if (field.type != FIELD_SUBJECT) return textOfField(msg, "sub");
    return unpacked(static_cast<const uint8_t*>(field.data.pointer));
}

Subjects subjectsOfEnvelope(const uint8_t* image, const EnvelopeView& view) {
    Subjects found;
    found.hasEnvelope = true;
    if (view.sendSubjectOffset != 0) found.subject = unpacked(image + view.sendSubjectOffset);
    if (view.replySubjectOffset != 0) {
        found.reply = reinterpret_cast<const char*>(image + view.replySubjectOffset);
    }
    return found;
}

// Most messages are read from their bytes alone. False where an object is needed and can't be made.
bool readMessage(std::span<const uint8_t> image, Reading& out) {
    EnvelopeView view;
    const uint32_t data = envelopeRead(image, view);
    pelmoMsg* const msg = form.message.get();
    if (data == 0 || form.asText) {
        if (msgTakeBytes(msg, image.data()) != kStatusSuccess) return false;
        if (data != 0 && msgOpenEnvelope(msg) != kStatusSuccess) return false;
    }
    out.records = image.subspan(data + kMessageHeadBytes);
    if (data != 0) {
        out.subjects = subjectsOfEnvelope(image.data(), view);
    } else {
        out.subjects.subject = subjectOf(msg);
        out.subjects.reply = textOfField(msg, "return");
    }
    return true;
}

// A field of the envelope's, in a message without one, isn't shown among the others, unless it
// should be a subject and doesn't read as text. Only the first of each name is one; `seen` has a
// bit for it.
bool isOfEnvelope(std::string_view name, const Subjects& subjects, unsigned& seen) {
    constexpr std::string_view kNames[] = {"sub", "return", "mtype", "cid"};
    const auto at = static_cast<size_t>(std::ranges::find(kNames, name) - kNames);
    if (at == std::size(kNames) || (seen & 1u << at) != 0) return false;
    seen |= 1u << at;
    if (at == 0) return subjects.subject.has_value();
    return at != 1 || subjects.reply.has_value();
}

bool isWantedField(std::string_view name) {
    return form.fields.empty() || std::ranges::count(form.fields, name) > 0;
}

// Is asked for one field of a message after the other.
struct FieldChoice {
    const Subjects& subjects;
    unsigned seen = 0;
};

bool isShown(void* context, std::string_view name) {
    FieldChoice& choice = *static_cast<FieldChoice*>(context);
    if (!choice.subjects.hasEnvelope && isOfEnvelope(name, choice.subjects, choice.seen))
        return false;
    return isWantedField(name);
}

pelmoStatus choosePositions(pelmoMsg* msg, const Subjects& subjects) {
    const pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    FieldChoice choice{subjects};
    form.positions.clear();
    for (uint32_t at = 0; at < msg->fieldCount; ++at) {
        if (isShown(&choice, msgFieldName(msg, at))) form.positions.push_back(at);
    }
    return kStatusSuccess;
}

// The fields as `"fields":[...]}`, or why there are none.
void addFields(const Reading& reading) {
    FieldChoice choice{reading.subjects};
    const bool isAll = reading.subjects.hasEnvelope && form.fields.empty();
    const pelmoStatus status =
        jsonWriteFields(reading.records, {isAll ? nullptr : isShown, &choice}, form.text);
    if (status == kStatusSuccess) return;
    textAdd(form.text, "\"fault\":\"", pelmoStatus_GetText(status), "\"}");
}

// The library's text is of whole messages, so that one of the chosen fields is made.
std::string textOf(pelmoMsg* msg, const Subjects& subjects) {
    pelmoMsg* chosen = nullptr;
    const char* text = nullptr;
    pelmoStatus status = choosePositions(msg, subjects);
    if (status == kStatusSuccess) status = msgCopyFields(&chosen, msg, form.positions);
    const OwnedMessage held(chosen);
    if (status == kStatusSuccess) status = pelmoMsg_ConvertToString(chosen, &text);
    return status == kStatusSuccess ? text : "(corrupt)";
}

void showJson(const AssembledMessage& message, const Reading& reading) {
    const auto& [subject, reply, hasEnvelope] = reading.subjects;
    addPlace(*message.packet);
    if (message.isRepeated) form.text += ",\"repeated\":true";
    if (subject) jsonTextAdd(form.text, *subject, ",\"subject\":");
    if (reply) jsonTextAdd(form.text, *reply, ",\"reply\":");
    form.text += ',';
    addFields(reading);
    endLine();
}

// Line breaks and other control characters of texts are shown as \xNN, so that a line is a message.
void showText(const AssembledMessage& message, const Subjects& subjects) {
    addPlace(*message.packet);
    std::string whole(subjects.subject.value_or("-"));
    whole += ' ';
    whole += textOf(form.message.get(), subjects);
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
    const char* const reason = wordsOf(message.incomplete);
    const Digits bytes(message.bytes.size());
    addPlace(*message.packet);
    if (form.asText) {
        textAdd(form.text, "(incomplete: ", reason, ", ", bytes, " bytes)");
        return endLine();
    }
    if (message.isRepeated) form.text += ",\"repeated\":true";
    textAdd(form.text, ",\"incomplete\":\"", reason, "\",\"bytes\":", bytes);
    if (message.wantedBytes != 0) {
        textAdd(form.text, ",\"message_bytes\":", Digits(message.wantedBytes));
    }
    form.text += '}';
    endLine();
}

void show(const AssembledMessage& message, void* /*context*/) {
    if (form.isFull || form.output.failed || !isWantedSender(*message.packet)) return;
    if (message.incomplete != Incomplete::kNo) return showIncomplete(message);
    Reading reading;
    if (!readMessage(message.bytes, reading)) {
        AssembledMessage wrong = message;
        wrong.incomplete = Incomplete::kNoMessage;
        return showIncomplete(wrong);
    }
    if (!isWantedSubject(reading.subjects)) return;
    if (form.asText) {
        showText(message, reading.subjects);
    } else {
        showJson(message, reading);
    }
}

void showPointToPoint(const BusPacket& packet) {
    if (!isWantedSender(packet) || form.isFull || form.patterns != nullptr) return;
    const Digits bytes(packet.payload.size());
    addPlace(packet);
    if (form.asText) {
        textAdd(form.text, "(point to point, ", bytes, " bytes)");
    } else {
        textAdd(form.text, ",\"point_to_point_bytes\":", bytes, "}");
    }
    endLine();
}

// ---- The run ----

bool start() {
    if (!formOutputOpen(form.output)) return false;
    jsonAcceptOwnTypes();
    form.message = messageMake();
    if (form.message == nullptr) {
        logPrint("unable to show messages: out of memory.");
        return false;
    }
    form.assembly.handOn = show;
    return true;
}

void takePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    BusPacket packet;
    if (!busPacketRead(time, {ip, length}, &packet)) return;
    if (packet.type == kOskaPtpData && form.pointToPoint) showPointToPoint(packet);
    assemblyTake(form.assembly, packet);
    if (traceSettings.liveCapture && !form.text.empty()) drain();
}

bool end(bool /*isWhole*/) {
    if (!form.output.failed) assemblyEnd(form.assembly);
    if (!form.output.failed) drain();
    formOutputClose(form.output);
    form.message = nullptr;
    sublistDestroy(form.patterns);
    form.patterns = nullptr;
    return !form.output.failed;
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
