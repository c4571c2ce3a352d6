#include "tests/support/trace_run.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <sstream>

#include "lib/base/log.h"
#include "trace/counts/statistics.h"
#include "trace/packets/address.h"
#include "trace/packets/classify.h"
#include "trace/settings.h"

namespace {

struct Count {
    const char* name;
    uint64_t value;
};

std::string counts(const std::vector<Count>& all) {
    std::string text;
    for (const Count& count : all) {
        if (count.value != 0)
            text += std::string(" ") + count.name + "=" + std::to_string(count.value);
    }
    return text;
}

std::string liveMark(uint64_t live) {
    return live != 0 ? " live" : "";
}

std::string hostName(uint32_t address, uint16_t port) {
    return ipToText(address) + (":" + std::to_string(hostOrder16(port)));
}

std::string reliabilityText(double reliability) {
    if (reliability == 0) return "";
    std::ostringstream text;
    text << " reliability=" << reliability;
    return text.str();
}

// The counters have the same names in a record and in its copy.
template <typename Record>
std::string multicastCounts(const Record& host) {
    return counts({{"bad", host.bad},
                   {"gaps", host.gaps},
                   {"data", host.data},
                   {"bytes", host.bytes},
                   {"nulls", host.nulls},
                   {"rdata", host.rdata},
                   {"rbytes", host.rbytes}}) +
           reliabilityText(host.reliability);
}

std::string rlCounts(const RlCounters& host) {
    return counts({{"badSent", host.badSent},
                   {"badRecv", host.badRecv},
                   {"rreqSent", host.rreqSent},
                   {"rreqRecv", host.rreqRecv},
                   {"rseqSent", host.rseqSent},
                   {"rseqRecv", host.rseqRecv},
                   {"rrejSent", host.rrejSent},
                   {"rrejRecv", host.rrejRecv}});
}

std::string ptpCounts(const PtpCounters& host) {
    return counts({{"badSent", host.badSent},
                   {"badRecv", host.badRecv},
                   {"dataSent", host.dataSent},
                   {"dataRecv", host.dataRecv},
                   {"bytesSent", host.bytesSent},
                   {"bytesRecv", host.bytesRecv},
                   {"nakSent", host.nakSent},
                   {"nakRecv", host.nakRecv},
                   {"ackmeSent", host.ackmeSent},
                   {"ackmeRecv", host.ackmeRecv},
                   {"ackSent", host.ackSent},
                   {"ackRecv", host.ackRecv}});
}

template <typename Record>
std::string messageCounts(const Record& host) {
    return counts({{"msgs", host.msgs}, {"bytes", host.bytes}});
}

std::string senderState(const HostEntry& host) {
    if (host.epoch == 0 && host.lastSeq == 0) return "";
    char text[64];
    std::snprintf(text, sizeof text, " epoch=%08x lastSeq=%u", host.epoch, host.lastSeq);
    return text;
}

// Records of a kind, one line each, by key as people read it.
class Rows {
  public:
    void add(const char* head, uint64_t key, uint64_t live, const std::string& text) {
        const uint32_t address = hostKeyAddress(key);
        const uint16_t port = hostKeyPort(key);
        rows_.push_back({{hostOrder32(address), hostOrder16(port)},
                         head + hostName(address, port) + liveMark(live) + text});
    }

    void moveTo(Lines& lines) {
        std::sort(rows_.begin(), rows_.end());
        for (const auto& row : rows_) {
            lines.push_back(row.second);
        }
    }

  private:
    std::vector<std::pair<std::pair<uint32_t, uint16_t>, std::string>> rows_;
};

// Those of an index for which isWanted(record) holds.
template <typename Record, typename IsWanted, typename Text>
void addHosts(
    Lines& lines, const ProbeIndex& index, IsWanted isWanted, const char* head, Text text) {
    Rows rows;
    eachHost<Record>(index, [&](const Record& record) {
        if (!isWanted(record)) return;
        rows.add(head, hostKey(record.path.address, record.path.port), record.live, text(record));
    });
    rows.moveTo(lines);
}

template <typename Record>
std::vector<std::pair<uint32_t, Record*>> sortedRecords(Dict32* dict, uint32_t (*order)(uint32_t)) {
    std::vector<std::pair<uint32_t, Record*>> records;
    eachRecord<Record>(dict, [&](uint32_t key, Record& record) {
        records.push_back({order(key), &record});
    });
    std::sort(records.begin(), records.end());
    return records;
}

void addSubjects(Lines& lines, NetEntry& net) {
    std::vector<std::pair<std::string, SubjectEntry*>> subjects;
    for (uint32_t place = 0; place < net.subjects.count; ++place) {
        SubjectEntry& subject = subjectAt(net.subjects, place);
        subjects.push_back({subjectName(packedSubject(subject)), &subject});
    }
    std::sort(subjects.begin(), subjects.end());
    for (const auto& [name, subject] : subjects) {
        lines.push_back("  subject " + name + liveMark(subject->msgs));
        Rows rows;
        for (const SubjectSender& sender : sendersOf(*subject)) {
            rows.add("   from ", sender.key, sender.msgs, messageCounts(sender));
        }
        rows.moveTo(lines);
    }
}

void addNet(Lines& lines, uint32_t address, NetEntry& net) {
    lines.push_back(std::string(" net ") + ipToText(hostOrder32(address)) + liveMark(net.live));
    const auto isOfNet = [&net](const HostEntry& host) { return host.net == &net; };
    addHosts<HostEntry>(lines, statistics.hosts, isOfNet, "  host ", [](const HostEntry& host) {
        return senderState(host) + multicastCounts(host);
    });
    addSubjects(lines, net);
    if (net.statusCount != 0) {
        lines.push_back("  held " + std::to_string(net.statusCount) + " in " +
                        std::to_string(net.statusUsed));
    }
}

std::string packetLine(uint64_t packets, uint64_t oskaPackets) {
    return "packets=" + std::to_string(packets) + " oska=" + std::to_string(oskaPackets);
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
        const bool continued = line.starts_with(" ");  // of a text of several lines
        const size_t nameEnd = continued ? std::string::npos : line.find(": ");
        lines.push_back(nameEnd == std::string::npos ? line : line.substr(nameEnd + 2));
    }
    return lines;
}

void analyze(const std::vector<Bytes>& packets) {
    for (const Bytes& packet : packets) {
        analyzePacket(packet.data(), packet.size());
    }
}

Lines treeText() {
    const auto portOrder = [](uint32_t key) {
        return uint32_t{hostOrder16(static_cast<uint16_t>(key))};
    };
    Lines lines = {packetLine(statistics.totalPackets, statistics.oskaPackets)};
    for (const auto& [number, port] : sortedRecords<PortEntry>(statistics.ports, portOrder)) {
        lines.push_back("port " + std::to_string(number) + liveMark(port->live));
        for (const auto& [address, net] : sortedRecords<NetEntry>(port->nets, hostOrder32)) {
            addNet(lines, address, *net);
        }
        const auto isOfPort = [of = port](const auto& host) { return host.port == of; };
        addHosts<RlHostEntry>(lines, statistics.rlHosts, isOfPort, " rl ",
                              [](const RlHostEntry& host) { return rlCounts(host.counters); });
        addHosts<PtpHostEntry>(lines, statistics.ptpHosts, isOfPort, " ptp ",
                               [](const PtpHostEntry& host) { return ptpCounts(host.counters); });
    }
    return lines;
}
