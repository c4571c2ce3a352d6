#include "pmd/oska_writer.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "lib/base/bytes.h"

namespace {

constexpr double kUsualReliabilitySeconds = 60.0;
constexpr uint16_t kWhole = 0;
constexpr uint16_t kFirstPart = 1;

void writeHeader(OskaWriter* writer, OskaType type) {
    uint8_t* const at = writer->packet;
    std::memset(at, 0, kOskaDataHeaderBytes);
    storeBe32At(at, kOskaMagic);
    storeNet32At(at + kOskaSrcOffset, writer->source);
    storeBe32At(at + kOskaEpochOffset, writer->epoch);
    storeNet32At(at + kOskaDstOffset, writer->group);
    storeBe16At(at + kOskaTypeOffset, static_cast<uint16_t>(type));
    storeBe32At(at + kOskaSeqOffset, writer->sequence);
}

void send(OskaWriter* writer, uint32_t payloadBytes, double now) {
    writer->lastSent = now;
    writer->send(writer->closure, {writer->packet, kOskaDataHeaderBytes + payloadBytes});
}

// Listeners compare numbers as they are: after the last one a new epoch begins.
void takeNumber(OskaWriter* writer) {
    if (writer->sequence == UINT32_MAX) {
        writer->epoch = kOskaEpochHasScid | (writer->epoch + 1);
        writer->sequence = 0;
    }
    ++writer->sequence;
}

void sendData(OskaWriter* writer, uint16_t fragment, double now) {
    takeNumber(writer);
    writeHeader(writer, kOskaData);
    storeBe16At(writer->packet + kOskaDataLengthOffset, static_cast<uint16_t>(writer->used));
    storeBe16At(writer->packet + kOskaFragmentOffset, fragment);
    ++writer->dataPackets;
    send(writer, writer->used, now);
    writer->used = 0;
}

void put(OskaWriter* writer, std::span<const uint8_t> bytes) {
    std::memcpy(writer->packet + kOskaDataHeaderBytes + writer->used, bytes.data(), bytes.size());
    writer->used += static_cast<uint32_t>(bytes.size());
}

void addInParts(OskaWriter* writer, std::span<const uint8_t> message, double now) {
    if (message.size() > kOskaMostMessageBytes) {
        ++writer->leftOut;
        return;
    }
    for (uint16_t part = kFirstPart; !message.empty(); ++part) {
        const size_t size = std::min<size_t>(message.size(), kOskaPayloadBytes);
        put(writer, message.first(size));
        sendData(writer, part, now);
        message = message.subspan(size);
    }
}

}  // namespace

void oskaWriterInit(OskaWriter* writer,
                    uint32_t source,
                    uint32_t group,
                    uint32_t startSeconds,
                    OskaPacketFunction send,
                    void* closure) {
    *writer = {};
    writer->source = source;
    writer->group = group;
    writer->epoch = kOskaEpochHasScid | startSeconds;
    writer->reliabilitySeconds = kUsualReliabilitySeconds;
    writer->send = send;
    writer->closure = closure;
    writer->lastSent = -kOskaNullSeconds;
}

void oskaWriterAdd(OskaWriter* writer, std::span<const uint8_t> message, double now) {
    if (message.size() > kOskaPayloadBytes - writer->used) oskaWriterFlush(writer, now);
    if (message.size() > kOskaPayloadBytes) return addInParts(writer, message, now);
    put(writer, message);
}

void oskaWriterFlush(OskaWriter* writer, double now) {
    if (writer->used != 0) sendData(writer, kWhole, now);
}

double oskaWriterDeadline(const OskaWriter* writer) {
    return writer->lastSent + kOskaNullSeconds;
}

void oskaWriterTick(OskaWriter* writer, double now) {
    if (now < oskaWriterDeadline(writer)) return;
    writeHeader(writer, kOskaNull);
    storeBe64At(writer->packet + kOskaReliabilityOffset,
                std::bit_cast<uint64_t>(writer->reliabilitySeconds));
    ++writer->nullPackets;
    send(writer, 0, now);
}
