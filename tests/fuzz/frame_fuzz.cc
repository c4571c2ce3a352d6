// Frames of any bytes, on the whole way that they go through the tool: frame, classification,
// handlers, scan, statistics, snapshot, report.
//
// An input is a row of frames. Some are raw; others get an OSKA head, or a message's, around their
// bytes, so that later parts are reached as well. Each frame lies in a block of exact size.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>

#include "lib/base/log.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/packet_builder.h"
#include "trace/capture/frame.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/report/report.h"
#include "trace/settings.h"

namespace {

constexpr int kFramesMax = 64;

PacketHead someHead(FuzzedDataProvider& input) {
    PacketHead head;
    head.srcIp = ipv4(10, 0, 0, input.ConsumeIntegral<uint8_t>());
    head.dstPort = input.ConsumeIntegral<uint8_t>();
    head.dstIp = ipv4(239, 0, 0, input.ConsumeIntegral<uint8_t>() & 3);
    head.src = input.ConsumeBool() ? head.srcIp : input.ConsumeIntegral<uint32_t>();
    head.dst = input.ConsumeBool() ? head.dstIp : input.ConsumeIntegral<uint32_t>();
    head.epoch = input.ConsumeIntegral<uint32_t>();
    head.seq = input.ConsumeIntegral<uint32_t>();
    return head;
}

Bytes someBytes(FuzzedDataProvider& input) {
    return input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 1500));
}

Bytes someMessage(FuzzedDataProvider& input) {
    const char* const subjects[] = {"A.B", "A", "_PM.INFO.SYSTEM.HOST.x", "_PM.INFO.SYSTEM.HOST"};
    std::vector<Bytes> fields = {subjectField(packedSubject(input.PickValueInArray(subjects)))};
    if (input.ConsumeBool()) fields[0] = subjectField(someBytes(input));
    fields.push_back(someBytes(input));
    return message(fields);
}

Bytes somePacket(FuzzedDataProvider& input) {
    const PacketHead head = someHead(input);
    switch (input.ConsumeIntegralInRange<int>(0, 4)) {
        case 0:
            return dataPacket(head, someBytes(input), input.ConsumeIntegral<uint16_t>() & 3);
        case 1:
            return dataPacket(head, joined({someMessage(input), someMessage(input)}),
                              input.ConsumeBool());
        case 2:
            return nullPacket(head, input.ConsumeFloatingPoint<double>());
        case 3:
            return rreqPacket(head, input.ConsumeIntegral<uint8_t>());
        default:
            return oskaPacket(head, input.ConsumeIntegralInRange<int16_t>(0, 10), someBytes(input));
    }
}

Bytes someFrame(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) return someBytes(input);
    Bytes frame = somePacket(input);
    if (input.ConsumeBool()) {
        const size_t at = input.ConsumeIntegralInRange<size_t>(0, frame.size() - 2);
        frame = patched(frame, at, be16(input.ConsumeIntegral<uint16_t>()));
    }
    if (input.ConsumeBool()) frame = ethernetFrame(frame);
    if (input.ConsumeBool()) {
        frame = cut(frame, input.ConsumeIntegralInRange<size_t>(0, frame.size()));
    }
    frame.shrink_to_fit();
    return frame;
}

void report(TimeSpec time) {
    SnapHeader* snapshot = snapshotTake(time);
    if (snapshot == nullptr) std::abort();
    printSnapshot(snapshot);
}

void openRun() {
    static FILE* const nowhere = std::fopen("/dev/null", "w");
    logSetStream(nowhere);
    traceSettings.complain = true;
    traceSettings.displayStats = traceSettings.displayMcast = traceSettings.displayPtp = true;
    traceSettings.displaySubjects = traceSettings.displayHostMsgs = true;
    if (statsInit() != kStatusSuccess) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t sizeBytes) {
    FuzzedDataProvider input(data, sizeBytes);
    openRun();
    traceSettings.displayRate = input.ConsumeBool();
    CaptureContext context = {analyzePacket};
    for (int32_t i = 0; i < kFramesMax && input.remaining_bytes() > 0; ++i) {
        const Bytes frame = someFrame(input);
        pcap_pkthdr header = {};
        header.ts.tv_sec = i;
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        frameHandler(reinterpret_cast<u_char*>(&context), &header, frame.data());
        if (input.ConsumeProbability<float>() > 0.9f) report({i, 0});
    }
    report({kFramesMax, 0});
    statsDestroy();
    return 0;
}
