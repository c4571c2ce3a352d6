// A Snapshot made by hand, for what reads one: each call adds a row and returns it to be filled in.
//
//     MadeSnapshot made;
//     made.host("239.1.1.1", "10.0.0.1", 7001).data = 3;
//     seriesAdd(table, made.snapshot());
//
// Addresses are dotted, port numbers in host order. All is on port 7500 unless `port` is set.

#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "tests/support/packet_builder.h"
#include "trace/counts/snapshot.h"

struct MadeSnapshot {
    uint16_t port = 7500;
    SnapHeader head = {};

    static uint32_t address(const std::string& text) { return inet_addr(text.c_str()); }

    SnapHost& host(const std::string& group, const std::string& sender, uint16_t scid) {
        SnapHost& row = ports_[port].nets[address(group)].hosts.emplace_back();
        row.host = address(sender);
        row.port = htons(scid);
        return row;
    }

    SnapSubject& subject(const std::string& group, const std::vector<std::string>& elements) {
        SnapSubject& row = ports_[port].nets[address(group)].subjects.emplace_back();
        row.subject = texts_.emplace_back(packedElements(elements)).data();
        return row;
    }

    RlCounters& rl(const std::string& host, uint16_t scid) {
        return ports_[port].rl.emplace_back(SnapRlHost{address(host), htons(scid), {}}).counters;
    }

    PtpCounters& ptp(const std::string& host, uint16_t scid) {
        return ports_[port].ptp.emplace_back(SnapPtpHost{address(host), htons(scid), {}}).counters;
    }

    // Valid until the next change.
    SnapHeader& snapshot() {
        out_.clear();
        for (auto& [number, rows] : ports_) {
            rows.out.clear();
            for (auto& [group, net] : rows.nets) {
                rows.out.push_back({.net = group,
                                    .hostCount = static_cast<uint32_t>(net.hosts.size()),
                                    .hosts = net.hosts.data(),
                                    .subjectCount = static_cast<uint32_t>(net.subjects.size()),
                                    .subjects = net.subjects.data(),
                                    .statusMsgCount = 0,
                                    .statusMsgs = nullptr});
            }
            out_.push_back({.port = htons(number),
                            .servicePort = htons(number),
                            .netCount = static_cast<uint32_t>(rows.out.size()),
                            .nets = rows.out.data(),
                            .rlHostCount = static_cast<uint32_t>(rows.rl.size()),
                            .rlHosts = rows.rl.data(),
                            .ptpHostCount = static_cast<uint32_t>(rows.ptp.size()),
                            .ptpHosts = rows.ptp.data()});
        }
        head.portCount = static_cast<uint32_t>(out_.size());
        head.ports = out_.data();
        return head;
    }

  private:
    struct Net {
        std::vector<SnapHost> hosts;
        std::vector<SnapSubject> subjects;
    };
    struct Port {
        std::map<uint32_t, Net> nets;
        std::vector<SnapRlHost> rl;
        std::vector<SnapPtpHost> ptp;
        std::vector<SnapNet> out;
    };

    std::map<uint16_t, Port> ports_;
    std::deque<Bytes> texts_;
    std::vector<SnapPort> out_;
};
