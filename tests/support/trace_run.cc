#include "tests/support/trace_run.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <sstream>

#include "lib/base/log.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/packets/inspection.h"
#include "trace/settings.h"

namespace {

using Texts = std::vector<Lines>;  // of records, each with those below it

template <size_t kCount = 0>
std::string line(const std::string& head,
                 bool live,
                 const std::array<uint64_t, kCount>& numbers = {}) {
    std::string text = head + (live ? " live" : "");
    for (const uint64_t number : numbers) {
        text += " " + std::to_string(number);
    }
    return text;
}

std::string hostName(const char* kind, uint32_t address, uint16_t port) {
    return kind + (ipToText(address) + (":" + std::to_string(ntohs(port))));
}

void add(Lines& lines, Texts texts) {
    std::sort(texts.begin(), texts.end());
    for (const Lines& text : texts) {
        lines.insert(lines.end(), text.begin(), text.end());
    }
}

Lines subjectText(const SubjectEntry& subject) {
    char name[kSubjectTextBytes];
    EXPECT_NE(subjectToText(name, sizeof name, packedSubject(subject)), nullptr);
    Texts senders;
    for (const auto& [key, msgs, bytes] : sendersOf(subject)) {
        const std::string from = hostName("   from ", hostKeyAddress(key), hostKeyPort(key));
        senders.push_back({line(from, msgs != 0, std::array{msgs, bytes})});
    }
    Lines lines = {line(std::string("  subject ") + name, subject.msgs != 0)};
    add(lines, senders);
    return lines;
}

Lines netText(uint32_t address, const NetEntry& net) {
    Texts hosts, subjects;
    eachHost<HostEntry>(statistics.hosts, [&](const HostEntry& host) {
        if (host.net != &net) return;
        const auto reliability = std::bit_cast<uint64_t>(host.reliability);
        const std::array<uint64_t, 10> numbers = {host.epoch, host.lastSeq, reliability, host.data,
                                                  host.bytes, host.nulls,   host.gaps,   host.bad,
                                                  host.rdata, host.rbytes};
        const std::string name = hostName("  host ", host.path.address, host.path.port);
        hosts.push_back({line(name, host.live, numbers)});
    });
    for (uint32_t place = 0; place < net.subjects.count; ++place) {
        subjects.push_back(subjectText(subjectAt(net.subjects, place)));
    }
    Lines lines = {line(std::string(" net ") + ipToText(address), net.live)};
    add(lines, hosts);
    add(lines, subjects);
    if (net.statusCount != 0) {
        lines.push_back("  held " + std::to_string(net.statusCount) + " in " +
                        std::to_string(net.statusUsed));
    }
    return lines;
}

template <typename Record>
Texts twoSidedTexts(const char* kind, const ProbeIndex& index, const PortEntry& port) {
    Texts texts;
    eachHost<Record>(index, [&](const Record& host) {
        if (host.port != &port) return;
        using Numbers = std::array<uint64_t, sizeof host.counters / sizeof(uint64_t)>;
        const std::string name = hostName(kind, host.path.address, host.path.port);
        texts.push_back({line(name, host.live, std::bit_cast<Numbers>(host.counters))});
    });
    return texts;
}

Lines portText(uint32_t number, const PortEntry& port) {
    Texts nets;
    eachRecord<NetEntry>(port.nets, [&](uint32_t address, const NetEntry& net) {
        nets.push_back(netText(address, net));
    });
    const std::string name = std::to_string(ntohs(static_cast<uint16_t>(number)));
    Lines lines = {line("port " + name, port.live)};
    add(lines, nets);
    add(lines, twoSidedTexts<RlHostEntry>(" rl ", statistics.rlHosts, port));
    add(lines, twoSidedTexts<PtpHostEntry>(" ptp ", statistics.ptpHosts, port));
    return lines;
}

// In a capture file.
constexpr uint32_t kMicrosecondMagic = 0xa1b2c3d4;
constexpr uint32_t kNanosecondMagic = 0xa1b23c4d;
constexpr uint32_t kVersion24 = 2u << 16 | 4u;  // two words of 16 bits

void append(std::string& text, Bytes bigEndian, bool keepOrder) {
    if (!keepOrder) std::reverse(bigEndian.begin(), bigEndian.end());
    text.append(bigEndian.begin(), bigEndian.end());
}

}  // namespace

TraceRun::TraceRun(bool complain) : complainBefore_(traceSettings.complain) {
    traceSettings.complain = complain;
    traceSettings.countSenders = true;
    log_ = open_memstream(&logText_, &logBytes_);
    logSetStream(log_);
    EXPECT_EQ(statsInit(), kStatusSuccess);
}

TraceRun::~TraceRun() {
    statsDestroy();
    logSetStream(stderr);
    std::fclose(log_);
    std::free(logText_);
    traceSettings.complain = complainBefore_;
    traceSettings.countSenders = false;
}

Lines TraceRun::logged() {
    std::fflush(log_);
    std::istringstream text(std::string(logText_ + logTaken_, logBytes_ - logTaken_));
    logTaken_ = logBytes_;
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        const size_t nameEnd = line.find(": ");
        lines.push_back(nameEnd == std::string::npos ? line : line.substr(nameEnd + 2));
    }
    return lines;
}

void analyze(const std::vector<Bytes>& packets) {
    for (const Bytes& packet : packets) {
        analyzePacket({}, packet.data(), packet.size());
    }
}

Lines treeText(const std::string& begin) {
    Texts ports;
    eachRecord<PortEntry>(statistics.ports, [&](uint32_t number, const PortEntry& port) {
        ports.push_back(portText(number, port));
    });
    Lines lines;
    add(lines, ports);
    std::erase_if(lines, [&](const std::string& text) { return !text.starts_with(begin); });
    return lines;
}

std::string captureText(const std::vector<SavedFrame>& frames, const CaptureStyle& style) {
    std::string text;
    const auto word = [&](uint32_t value) { append(text, be32(value), style.bigEndian); };
    word(style.nanoseconds ? kNanosecondMagic : kMicrosecondMagic);
    append(text, be16(kVersion24 >> 16), style.bigEndian);
    append(text, be16(kVersion24 & 0xffff), style.bigEndian);
    for (const uint32_t value : {0u, 0u, style.snapshotBytes, style.linkType}) {
        word(value);
    }
    for (const SavedFrame& frame : frames) {
        const auto sizeBytes = static_cast<uint32_t>(frame.bytes.size());
        word(static_cast<uint32_t>(frame.seconds));
        word(frame.microseconds);
        word(sizeBytes);
        word(sizeBytes);
        text.append(frame.bytes.begin(), frame.bytes.end());
    }
    return text;
}
