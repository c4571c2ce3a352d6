// Snapshots made by hand, for tests and benchmarks of what reads them. The test fills the vectors;
// link() then lays the records out behind a head, whose pointers are valid until the builder
// changes or is destroyed.
//
// Port numbers of BuiltPort are in host order; all other words are as in the records.

#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "trace/counts/snapshot.h"

using PackedSubject = std::vector<uint8_t>;

inline uint32_t addressOf(const char* text) {
    return inet_addr(text);
}

// Packs any element texts, including those that no dotted text can give. At most 255 bytes in all.
inline PackedSubject packSubject(const std::vector<std::string>& elements) {
    PackedSubject packed = {0, 0, static_cast<uint8_t>(elements.size())};
    for (const std::string& element : elements) {
        packed.push_back(static_cast<uint8_t>(element.size() + 2));
        packed.insert(packed.end(), element.begin(), element.end());
        packed.push_back(0);
    }
    packed[1] = static_cast<uint8_t>(packed.size());
    return packed;
}

// Packs a dotted text.
inline PackedSubject packText(std::string_view text) {
    std::vector<std::string> elements(1);
    for (const char character : text) {
        if (character == '.') {
            elements.emplace_back();
        } else {
            elements.back() += character;
        }
    }
    return packSubject(elements);
}

struct BuiltSubject {
    PackedSubject packed;
    std::vector<SnapSubjectHost> hosts = {};
};

struct BuiltNet {
    uint32_t net;
    std::vector<SnapHost> hosts = {};
    std::vector<BuiltSubject> subjects = {};
    std::vector<const uint8_t*> statusMsgs = {};
};

struct BuiltPort {
    uint16_t port;
    std::vector<BuiltNet> nets = {};
    std::vector<SnapRlHost> rlHosts = {};
    std::vector<SnapPtpHost> ptpHosts = {};
};

struct BuiltSnapshot {
    TimeSpec from, to;
    std::vector<BuiltPort> ports = {};

    SnapHeader* link() {
        subjects.clear();
        nets.clear();
        snapPorts.clear();
        for (BuiltPort& port : ports) {
            snapPorts.push_back(linkPort(port));
        }
        head = {from, to, 0, 0, sizeOf(snapPorts), snapPorts.data()};
        return &head;
    }

    template <typename Records>
    static uint32_t sizeOf(const Records& records) {
        return static_cast<uint32_t>(records.size());
    }

    SnapPort linkPort(BuiltPort& port) {
        std::vector<SnapNet> linked;
        for (BuiltNet& net : port.nets) {
            linked.push_back(linkNet(net));
        }
        std::vector<SnapNet>& kept = nets.emplace_back(std::move(linked));
        return {htons(port.port),      htons(port.port),     sizeOf(kept),
                kept.data(),           sizeOf(port.rlHosts), port.rlHosts.data(),
                sizeOf(port.ptpHosts), port.ptpHosts.data()};
    }

    SnapNet linkNet(BuiltNet& net) {
        std::vector<SnapSubject> linked;
        for (BuiltSubject& subject : net.subjects) {
            SnapSubject& made = linked.emplace_back(SnapSubject{
                subject.packed.data(), 0, 0, sizeOf(subject.hosts), subject.hosts.data()});
            for (const SnapSubjectHost& host : subject.hosts) {
                made.msgs += host.msgs;
                made.bytes += host.bytes;
            }
        }
        std::vector<SnapSubject>& kept = subjects.emplace_back(std::move(linked));
        return {net.net,     sizeOf(net.hosts),      net.hosts.data(),     sizeOf(kept),
                kept.data(), sizeOf(net.statusMsgs), net.statusMsgs.data()};
    }

    // What link() made.
    SnapHeader head = {};
    std::vector<SnapPort> snapPorts = {};
    std::deque<std::vector<SnapNet>> nets = {};
    std::deque<std::vector<SnapSubject>> subjects = {};
};
