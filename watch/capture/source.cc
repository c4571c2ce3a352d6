#include "watch/capture/source.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/capture/frame.h"
#include "trace/counts/services.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/packets/oska.h"
#include "trace/run/run_modes.h"
#include "trace/run/start_steps.h"
#include "trace/settings.h"
#include "watch/capture/not_read.h"

SourceSettings sourceSettings;

namespace {

constexpr char kAllUdp[] = "udp";  // the filter of a run that names none
constexpr int kFilterSnapshotBytes = 65535;
constexpr size_t kMostLinkTypes = 16;  // with a filter or a name of their own

// Written by the one thread that takes frames, read by any.
class Count {
  public:
    void add(uint64_t more) { number_.store(value() + more, std::memory_order_relaxed); }
    void clear() { number_.store(0, std::memory_order_relaxed); }
    uint64_t value() const { return number_.load(std::memory_order_relaxed); }

  private:
    std::atomic<uint64_t> number_ = 0;
};

// The filter's text as a program for frames of one link type. Null where the text has no meaning
// there: then no frame passes.
struct ProgramFree {
    void operator()(bpf_program* program) const {
        pcap_freecode(program);
        delete program;
    }
};
using Program = std::unique_ptr<bpf_program, ProgramFree>;

struct LinkKind {
    uint16_t linkType;
    Count frames;
    Program program;
    bool hasProgram;
};

struct Source {
    OwnedCaptureSet set;
    OwnedCaptureSet against;  // null unless captures are compared
    bool isAgainst = false;   // it is what is being read

    // Of the thread that takes frames.
    LinkKind kinds[kMostLinkTypes];
    std::atomic<size_t> kindCount = 0;
    Program inner;  // for IP packets that were peeled off
    bool wantsAllUdp = false;
    uint16_t liveLinkType = 0;
    bool warnedOfCut = false;

    Count frames, busFrames;
    Count notRead[kNotReadKinds];

    // Of the thread that hands on Snapshots.
    uint64_t reportedNotRead[kNotReadKinds] = {};
};

Source source;

// Null where libpcap refuses the text for this link type; `fault` has its words then.
Program compile(const char* text, int linkType, std::string* fault) {
    constexpr int kOptimize = 0;  // as where the text is tried: the optimizer takes forever on some
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> dead(
        pcap_open_dead(linkType, kFilterSnapshotBytes), pcap_close);
    Program program(new bpf_program{});
    if (dead == nullptr) return nullptr;
    if (pcap_compile(dead.get(), program.get(), text, kOptimize, PCAP_NETMASK_UNKNOWN) == 0) {
        return program;
    }
    if (fault != nullptr) *fault = pcap_geterr(dead.get());
    return nullptr;
}

bool passes(const Program& program, const CaptureFrame& frame, std::span<const uint8_t> bytes) {
    if (program == nullptr) return false;
    const pcap_pkthdr header = {.ts = {},
                                .caplen = static_cast<bpf_u_int32>(bytes.size()),
                                .len = std::max(frame.wireBytes, frame.capturedBytes)};
    return pcap_offline_filter(program.get(), &header, bytes.data()) != 0;
}

// Link types number differently for libpcap than in files where the two differ by system.
int dltOf(uint16_t linkType) {
    return linkType == kLinkRaw ? DLT_RAW : linkType;
}

// Beyond kMostLinkTypes all further ones count as the last.
LinkKind& kindOf(uint16_t linkType) {
    const size_t count = source.kindCount.load(std::memory_order_relaxed);
    for (size_t at = 0; at < count; ++at) {
        if (source.kinds[at].linkType == linkType) return source.kinds[at];
    }
    if (count == kMostLinkTypes) return source.kinds[count - 1];
    source.kinds[count].linkType = linkType;
    source.kindCount.store(count + 1, std::memory_order_release);
    return source.kinds[count];
}

bool framePasses(const CaptureFrame& frame, LinkKind& kind) {
    if (!kind.hasProgram) {
        kind.program = compile(traceSettings.filterText, dltOf(frame.linkType), nullptr);
        kind.hasProgram = true;
    }
    return passes(kind.program, frame, {frame.bytes, frame.capturedBytes});
}

bool passesFilter(const CaptureFrame& frame, const PeeledFrame& peeled, LinkKind& kind) {
    if (source.wantsAllUdp && !peeled.ip.empty()) {
        return peeled.ip[kIpProtocolOffset] == kProtocolUdp;
    }
    const bool judgesInside = !peeled.isPlain && source.inner != nullptr && !peeled.ip.empty();
    return judgesInside ? passes(source.inner, frame, peeled.ip) : framePasses(frame, kind);
}

// Without tags and of the commonest link type: the analysis has its own words for what is wrong
// with such a frame, and looks at some that aren't IP.
void handOnPlain(const CaptureFrame& frame, PacketHandler handler) {
    const pcap_pkthdr header = {
        .ts = {.tv_sec = frame.seconds,
               .tv_usec = static_cast<suseconds_t>(frame.nanoseconds / 1000)},
        .caplen = frame.capturedBytes,
        .len = frame.wireBytes};
    frameAnalyze(header, frame.bytes, handler);
}

// To the microsecond, as all forms have it.
TimeSpec timeOf(const CaptureFrame& frame) {
    return {static_cast<int32_t>(frame.seconds), frame.nanoseconds / 1000 * 1000};
}

void takePeeled(const CaptureFrame& frame, PacketHandler handler) {
    LinkKind& kind = kindOf(frame.linkType);
    kind.frames.add(1);
    const PeeledFrame peeled =
        peelFrame({frame.bytes, frame.capturedBytes}, frame.wireBytes, frame.linkType);
    const bool isWanted = passesFilter(frame, peeled, kind);
    const bool isLeftOut = peeled.isBus && !isWanted;
    const NotRead reason = isLeftOut ? NotRead::kFiltered : peeled.reason;
    if (peeled.isBus && isWanted) source.busFrames.add(1);
    if (reason != NotRead::kNothing) source.notRead[static_cast<size_t>(reason)].add(1);
    if (!isWanted) return;
    if (frame.linkType == kLinkEthernet && peeled.isPlain) return handOnPlain(frame, handler);
    if (!peeled.ip.empty()) handler(timeOf(frame), peeled.ip.data(), peeled.ip.size());
}

void takeFrame(const CaptureFrame& frame, PacketHandler handler) {
    source.frames.add(1);
    const bool isQuick = source.wantsAllUdp && frameIsPlainBus({frame.bytes, frame.capturedBytes},
                                                               frame.wireBytes, frame.linkType);
    if (!isQuick) return takePeeled(frame, handler);
    kindOf(kLinkEthernet).frames.add(1);
    source.busFrames.add(1);
    handler(timeOf(frame), frame.bytes + kEthernetHeaderBytes,
            frame.capturedBytes - kEthernetHeaderBytes);
}

// ---- Live ----

// Tunnels, tags and labels hide a packet from the user's filter, which judges it once it was
// peeled off. The word "vlan" comes last, as it moves the offsets of all words after it; link types
// without tags of their own refuse it.
std::string liveFilterText(pcap_t* capture) {
    const std::string hidden = std::string(
                                   "ip proto 47 or ip6 proto 47 or udp port 4789 or udp port 8472"
                                   " or ether proto 0x8847 or ether proto 0x8848 or (") +
                               traceSettings.filterText + ")";
    std::string text = hidden + " or vlan";
    if (filterFault(capture, text.c_str()).empty()) return text;
    text = hidden + " or ether proto 0x8100 or ether proto 0x88a8 or ether proto 0x9100";
    return filterFault(capture, text.c_str()).empty() ? text : traceSettings.filterText;
}

// Who takes packets in place of the analysis is spared those that come after the end of the run.
void takeAlone(TimeSpec time, const uint8_t* ip, size_t length) {
    const LockGuard guard(statsLock);
    if (!captureShuttingDown()) sourceSettings.takePacket(time, ip, length);
}

void takeLive(const pcap_pkthdr& header, const u_char* bytes, PacketHandler handler) {
    takeFrame({.seconds = header.ts.tv_sec,
               .nanoseconds = static_cast<uint32_t>(header.ts.tv_usec) * 1000,
               .capturedBytes = header.caplen,
               .wireBytes = header.len,
               .linkType = source.liveLinkType,
               .bytes = bytes},
              sourceSettings.takePacket != nullptr ? takeAlone : handler);
}

uint16_t liveLinkTypeOf(pcap_t* capture) {
    const int dlt = pcap_datalink(capture);
    return static_cast<uint16_t>(dlt == DLT_RAW ? kLinkRaw : dlt);
}

// ---- The blind line ----

std::string linkTypesText() {
    std::string names;
    const size_t count = source.kindCount.load(std::memory_order_acquire);
    for (size_t at = 0; at < count; ++at) {
        const uint16_t linkType = source.kinds[at].linkType;
        const char* const known = linkTypeName(linkType);
        const char* const name = known != nullptr ? known : pcap_datalink_val_to_name(linkType);
        names += (at == 0 ? "" : at + 1 == count ? " and " : ", ");
        names += name != nullptr ? std::string(name) : std::to_string(linkType);
    }
    return (count == 1 ? " of link type " : " of link types ") + names;
}

// A time of day is of the captures' first day, or of the next where it lies long before their
// beginning. The span's end comes after its beginning.
CaptureSpan wantedSpan(const CaptureSet& set,
                       const std::optional<CaptureTime>& from,
                       const std::optional<CaptureTime>& to) {
    constexpr int64_t kHalfDaySeconds = 43200;
    const int64_t firstSeconds = captureSetFirstSeconds(set);
    CaptureSpan span;
    if (from) {
        span.fromSeconds = captureTimeResolve(*from, firstSeconds, kHalfDaySeconds);
        span.fromNanoseconds = from->nanoseconds;
    }
    if (to) {
        span.toSeconds = captureTimeResolve(*to, from ? span.fromSeconds : firstSeconds,
                                            from ? 0 : kHalfDaySeconds);
        span.toNanoseconds = to->nanoseconds;
    }
    return span;
}

// Once they are known, whichever file they are of.
void warnOfCut(const CaptureSet& set) {
    const uint32_t bytes = captureSetSnapshotBytes(set);
    if (bytes == 0 || std::exchange(source.warnedOfCut, true)) return;
    warnOfCutFrames(static_cast<int>(std::min(bytes, uint32_t{INT32_MAX})));
}

bool isTimeOfDay(const std::optional<CaptureTime>& time) {
    return time && time->isTimeOfDay;
}

// Waits for pipes, hence with the form started and signals heard.
bool beginReading(CaptureSet& set,
                  const std::optional<CaptureTime>& from,
                  const std::optional<CaptureTime>& to) {
    if (!captureSetAwait(set, isTimeOfDay(from) || isTimeOfDay(to))) return false;
    captureSetLimit(set, wantedSpan(set, from, to));
    warnOfCut(set);
    return true;
}

bool beginSet(CaptureSet& set) {
    if (!captureSetBegin(set)) return false;
    warnOfCut(set);
    return true;
}

void readSet(CaptureSet& set) {
    CaptureFrame frame;
    if (sourceSettings.takePacket != nullptr) {
        while (captureSetNext(set, &frame) == ReadResult::kFrame)
            takeFrame(frame, sourceSettings.takePacket);
        return;
    }
    offlineRunBegin();
    while (captureSetNext(set, &frame) == ReadResult::kFrame) {
        framePlace = {frame.number, frame.file};
        takeFrame(frame, offlineRunPacket);
    }
    offlineRunEnd();
}

const CaptureSet& setBeingRead() {
    return source.isAgainst ? *source.against : *source.set;
}

}  // namespace

pelmoStatus sourceOpen() {
    source.wantsAllUdp = std::strcmp(traceSettings.filterText, kAllUdp) == 0;
    if (traceSettings.liveCapture) return openSource();
    source.set = captureSetOpen(sourceSettings.files);
    if (!sourceSettings.against.empty()) source.against = captureSetOpen(sourceSettings.against);
    return kStatusSuccess;
}

std::string sourceFilterFault(const char* text) {
    std::string fault;
    if (compile(text, DLT_RAW, nullptr) != nullptr) return {};
    return compile(text, DLT_EN10MB, &fault) != nullptr ? std::string() : fault;
}

bool sourceTakesAll() {
    return source.wantsAllUdp;
}

pelmoStatus sourceBegin() {
    source.inner = compile(traceSettings.filterText, DLT_RAW, nullptr);
    if (!traceSettings.liveCapture) {
        const bool hasBegun =
            (source.against == nullptr || beginSet(*source.against)) && beginSet(*source.set);
        return hasBegun ? kStatusSuccess : kStatusNotInitialized;
    }
    pcap_t* const capture = captureState.captureHandle;
    source.liveLinkType = liveLinkTypeOf(capture);
    frameTaker = takeLive;
    return installFilter(capture, liveFilterText(capture).c_str()) ? kStatusSuccess
                                                                   : kStatusNotInitialized;
}

bool sourceRunOffline() {
    if (!beginReading(*source.set, sourceSettings.from, sourceSettings.to)) return false;
    readSet(*source.set);
    return true;
}

bool sourceRunAgainst() {
    source.isAgainst = true;
    CaptureSet& set = *source.against;
    if (!beginReading(set, sourceSettings.againstFrom, sourceSettings.againstTo)) return false;
    readSet(set);
    return true;
}

bool sourceTurn() {
    source.isAgainst = false;
    for (LinkKind& kind : source.kinds) {
        kind.frames.clear();
        kind.hasProgram = false;
    }
    source.kindCount = 0;
    source.frames.clear();
    source.busFrames.clear();
    for (size_t kind = 0; kind < kNotReadKinds; ++kind) {
        source.notRead[kind].clear();
        source.reportedNotRead[kind] = 0;
    }
    snapshotSetStart({});
    servicesForget();
    const LockGuard guard(statsLock);
    statsDestroy();
    return statsInit() == kStatusSuccess;
}

bool sourceIsAgainst() {
    return source.isAgainst;
}

void sourceStop() {
    if (source.against != nullptr) captureSetStop(*source.against);
    if (source.set != nullptr) {
        captureSetStop(*source.set);
    } else if (captureState.captureHandle != nullptr) {
        breakCaptureLoop(captureState.captureHandle);
    }
}

void sourceFill(SnapSource* out) {
    for (size_t kind = 0; kind < kNotReadKinds; ++kind) {
        const uint64_t now = source.notRead[kind].value();
        out->notRead[kind] = now - source.reportedNotRead[kind];
        source.reportedNotRead[kind] = now;
    }
    CaptureSet* const set = source.isAgainst ? source.against.get() : source.set.get();
    if (set != nullptr) captureSetLook(*set);
    const CaptureExtent extent = set != nullptr ? captureSetExtent(*set) : CaptureExtent{};
    out->readBytes = extent.readBytes;
    out->fileBytes = extent.fileBytes;
}

CaptureExtent sourceExtent() {
    if (source.set == nullptr) return {};
    const CaptureExtent own = captureSetExtent(*source.set);
    if (source.against == nullptr) return own;
    const CaptureExtent other = captureSetExtent(*source.against);
    if (own.fileBytes == 0 || other.fileBytes == 0) return {};
    return {own.readBytes + other.readBytes, own.fileBytes + other.fileBytes};
}

size_t sourceFiles() {
    return source.set != nullptr ? captureSetFiles(setBeingRead()) : 0;
}

const std::string& sourceFileName(uint32_t file) {
    return captureSetFileName(setBeingRead(), file);
}

std::string sourceBlindText() {
    const uint64_t frames = source.frames.value();
    if (source.busFrames.value() > 0) return {};
    if (frames == 0 && traceSettings.liveCapture) return {};
    if (frames == 0) {
        const SourceSettings& asked = sourceSettings;
        const bool hasSpan =
            source.isAgainst ? asked.againstFrom || asked.againstTo : asked.from || asked.to;
        return std::string(hasSpan ? "no frames in the time asked for" : "no frames") +
               ", so none of the bus";
    }
    uint64_t notRead[kNotReadKinds];
    for (size_t kind = 0; kind < kNotReadKinds; ++kind)
        notRead[kind] = source.notRead[kind].value();
    return std::to_string(frames) + (frames == 1 ? " frame" : " frames") + linkTypesText() +
           ", none of the bus: " + notReadText(notRead);
}

bool sourceHasFault() {
    return (source.set != nullptr && captureSetHasFault(*source.set)) ||
           (source.against != nullptr && captureSetHasFault(*source.against));
}
