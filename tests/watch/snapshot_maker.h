// Snapshots for tests, made of what a test names; all else is 0. They are valid until the maker
// changes.

#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/packet_builder.h"
#include "trace/counts/snapshot.h"

class SnapshotMaker {
  public:
    SnapHost& host(uint16_t port, const char* group, const char* address, uint16_t scid = 0) {
        return added(ports[port].nets[inet_addr(group)].hosts, address, scid);
    }

    RlCounters& retransmission(uint16_t port, const char* address, uint16_t scid = 0) {
        return added(ports[port].rlHosts, address, scid).counters;
    }

    PtpCounters& pointToPoint(uint16_t port, const char* address, uint16_t scid = 0) {
        return added(ports[port].ptpHosts, address, scid).counters;
    }

    // Messages of a byte each by one sender.
    void subject(uint16_t port,
                 const char* group,
                 const std::vector<std::string>& elements,
                 const char* sender,
                 uint64_t messages) {
        ports[port].nets[inet_addr(group)].subjects[packedElements(elements)] = {
            inet_addr(sender), htons(20000), messages, messages};
    }

    void servicePort(uint16_t port, uint16_t service) { ports[port].service = service; }

    SnapHeader& at(int32_t seconds) {
        head.prevTime = {static_cast<int32_t>(int64_t{seconds} - 2), 0};
        head.thisTime = {seconds, 0};
        head.span.elapsedNanoseconds = 2'000'000'000;
        snapPorts.clear();
        for (auto& [number, port] : ports)
            snapPorts.push_back(finished(number, port));
        head.portCount = static_cast<uint32_t>(snapPorts.size());
        head.ports = snapPorts.data();
        snapshotSort(&head);
        return head;
    }

    SnapHeader head{};

  private:
    struct Net {
        std::vector<SnapHost> hosts;
        std::map<Bytes, SnapSubjectHost> subjects;  // their senders
        std::vector<SnapSubject> snapSubjects;
    };

    struct Port {
        uint16_t service = 0;
        std::map<uint32_t, Net> nets;
        std::vector<SnapNet> snapNets;
        std::vector<SnapRlHost> rlHosts;
        std::vector<SnapPtpHost> ptpHosts;
    };

    template <typename Host>
    static Host& added(std::vector<Host>& hosts, const char* address, uint16_t scid) {
        Host& host = hosts.emplace_back();
        host.host = inet_addr(address);
        host.port = htons(scid);
        return host;
    }

    // Subjects may be read some bytes beyond their end, as those of a Snapshot may.
    static SnapNet finished(uint32_t group, Net& net) {
        net.snapSubjects.clear();
        for (auto& [packed, sender] : net.subjects)
            net.snapSubjects.push_back({packed.data(), sender.msgs, sender.msgs, 1, &sender});
        SnapNet made{};
        made.net = group;
        made.hostCount = static_cast<uint32_t>(net.hosts.size());
        made.hosts = net.hosts.data();
        made.subjectCount = static_cast<uint32_t>(net.snapSubjects.size());
        made.subjects = net.snapSubjects.data();
        return made;
    }

    static SnapPort finished(uint16_t number, Port& port) {
        port.snapNets.clear();
        for (auto& [group, net] : port.nets)
            port.snapNets.push_back(finished(group, net));
        return {.port = htons(number),
                .servicePort = htons(port.service != 0 ? port.service : number),
                .netCount = static_cast<uint32_t>(port.snapNets.size()),
                .nets = port.snapNets.data(),
                .rlHostCount = static_cast<uint32_t>(port.rlHosts.size()),
                .rlHosts = port.rlHosts.data(),
                .ptpHostCount = static_cast<uint32_t>(port.ptpHosts.size()),
                .ptpHosts = port.ptpHosts.data()};
    }

    std::map<uint16_t, Port> ports;
    std::vector<SnapPort> snapPorts;
};
