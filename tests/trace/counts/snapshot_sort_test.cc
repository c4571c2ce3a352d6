#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "tests/support/fail_alloc.h"
#include "tests/support/snapshot_builder.h"
#include "trace/counts/snapshot.h"

namespace {

using Elements = std::vector<std::string>;

constexpr size_t kSubjectBytesMax = 255;

// What counts of a subject: each element up to its first NUL. Vectors of texts then compare as
// subjects do.
Elements seen(const Elements& elements) {
    Elements cut;
    for (const std::string& element : elements) {
        cut.emplace_back(element.c_str());
    }
    return cut;
}

// Sorts the subjects, each with the place that it had as the SCid of its host. Returns the places
// in their new order.
std::vector<size_t> sortSubjects(const std::vector<Elements>& subjects) {
    BuiltNet net{.net = 1};
    for (size_t i = 0; i < subjects.size(); ++i) {
        net.subjects.push_back({packSubject(subjects[i]), {{static_cast<uint32_t>(i), 0, 1, 1}}});
    }
    BuiltSnapshot built{.from = {}, .to = {}, .ports = {{.port = 1, .nets = {net}}}};
    snapshotSort(built.link());

    std::vector<size_t> places;
    for (const SnapSubject& subject : built.subjects.front()) {
        const size_t place = subject.hosts->host;
        EXPECT_EQ(subject.subject, built.ports[0].nets[0].subjects[place].packed.data());
        places.push_back(place);
    }
    return places;
}

void expectSorted(const std::vector<Elements>& subjects) {
    const std::vector<size_t> places = sortSubjects(subjects);
    std::vector<size_t> all = places;
    std::sort(all.begin(), all.end());
    for (size_t i = 0; i < subjects.size(); ++i) {
        ASSERT_EQ(all.at(i), i);
    }
    for (size_t i = 1; i < places.size(); ++i) {
        ASSERT_LE(seen(subjects[places[i - 1]]), seen(subjects[places[i]])) << "at " << i;
    }
}

struct Random {
    std::mt19937 engine{20240229};

    size_t below(size_t limit) { return engine() % limit; }

    // Of few characters, NUL among them, so that most subjects share long beginnings.
    std::string element(size_t lengthMax) {
        constexpr char kCharacters[] = {'\0', '\1', 'A', 'B', 'B', 'B', '\xff'};
        std::string text;
        for (size_t left = below(lengthMax + 1); left > 0; --left) {
            text += kCharacters[below(sizeof kCharacters)];
        }
        return text;
    }

    Elements subject(size_t lengthMax, const Elements& prefix) {
        Elements elements = prefix;
        size_t bytes = packSubject(prefix).size();
        for (size_t left = below(12); left > 0; --left) {
            const std::string next = element(lengthMax);
            bytes += next.size() + 2;
            if (bytes > kSubjectBytesMax) break;
            elements.push_back(next);
        }
        return elements;
    }
};

// Among them so many that keys are dealt out ahead of their sorting, into one heap or into many.
TEST(SnapshotSort, OrdersAnySubjects) {
    const Elements prefixes[] = {{},
                                 {"FEED", "PRICES", "EQUITY"},
                                 Elements(100, ""),
                                 {std::string(120, 'p'), std::string(90, 'q')}};
    Random random;
    for (int round = 0; round < 60; ++round) {
        const Elements& prefix = prefixes[round % 4];
        const size_t lengthMax = random.below(20);
        std::vector<Elements> subjects(round < 2 ? 5000 : random.below(300));
        for (Elements& subject : subjects) {
            subject = random.subject(lengthMax, prefix);
        }

        expectSorted(subjects);
        std::sort(subjects.begin(), subjects.end());
        expectSorted(subjects);
    }
}

TEST(SnapshotSort, GoesWithoutMemory) {
    Random random;
    BuiltSnapshot built{.from = {}, .to = {}, .ports = {{.port = 1, .nets = {{.net = 1}}}}};
    BuiltNet& net = built.ports[0].nets[0];
    std::map<const uint8_t*, Elements> elementsOf;
    for (int i = 0; i < 500; ++i) {
        const Elements elements = random.subject(6, {"FEED"});
        net.subjects.push_back({packSubject(elements)});
        elementsOf[net.subjects.back().packed.data()] = seen(elements);
        net.hosts.emplace_back().host = static_cast<uint32_t>(random.engine());
    }

    const size_t failing = eachAllocationFails([&] {
        SnapHeader* snapshot = built.link();
        snapshotSort(snapshot);
        const SnapNet& sorted = snapshot->ports[0].nets[0];
        for (uint32_t i = 1; i < sorted.subjectCount; ++i) {
            ASSERT_LE(elementsOf.at(sorted.subjects[i - 1].subject),
                      elementsOf.at(sorted.subjects[i].subject));
            ASSERT_LE(ntohl(sorted.hosts[i - 1].host), ntohl(sorted.hosts[i].host));
        }
        std::shuffle(net.hosts.begin(), net.hosts.end(), random.engine);
    });
    EXPECT_EQ(failing, 2u);  // one allocation at most, failing once and for good
}

// Hosts in order, the SCid deciding between equal addresses, each with its place as its counter.
template <typename Host, typename Counter>
std::vector<Host> hostsInOrder(size_t count, Counter counter) {
    const char* addresses[] = {"0.0.0.0",   "1.0.0.255",       "9.255.0.0",
                               "127.0.0.1", "128.0.0.1",       "224.0.0.5",
                               "224.0.1.4", "255.255.255.255", "255.255.255.255"};
    constexpr size_t kAddresses = sizeof addresses / sizeof addresses[0] - 1;
    std::vector<Host> hosts(count);
    const size_t perAddress = count / kAddresses + 1;
    for (size_t i = 0; i < count; ++i) {
        hosts[i].host = addressOf(addresses[i / perAddress]);
        hosts[i].port = htons(static_cast<uint16_t>(i % perAddress * 200));
        std::invoke(counter, hosts[i]) = i;
    }
    return hosts;
}

template <typename Host, typename Counter>
void expectInOrder(const Host* hosts, size_t count, Counter counter) {
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(std::invoke(counter, hosts[i]), i);
    }
}

TEST(SnapshotSort, OrdersAddressesAsUnsignedNumbersAndMovesWholeRecords) {
    const auto rrejRecv = [](auto& host) -> auto& {
        return host.counters.rrejRecv;
    };
    const auto ackRecv = [](auto& host) -> auto& {
        return host.counters.ackRecv;
    };
    Random random;
    for (const size_t count : std::initializer_list<size_t>{0, 1, 2, 15, 16, 17, 300}) {
        BuiltSnapshot built{.from = {}, .to = {}, .ports = {{.port = 1}}};
        BuiltPort& port = built.ports[0];
        port.nets = {{.net = 1, .subjects = {{packText("A")}}}};
        BuiltNet& net = port.nets[0];
        const auto fill = [&]<typename Host>(std::vector<Host>& hosts, auto counter) {
            hosts = hostsInOrder<Host>(count, counter);
            std::shuffle(hosts.begin(), hosts.end(), random.engine);
        };
        fill(net.hosts, &SnapHost::rbytes);
        fill(net.subjects[0].hosts, &SnapSubjectHost::bytes);
        fill(port.rlHosts, rrejRecv);
        fill(port.ptpHosts, ackRecv);

        snapshotSort(built.link());
        expectInOrder(net.hosts.data(), count, &SnapHost::rbytes);
        expectInOrder(net.subjects[0].hosts.data(), count, &SnapSubjectHost::bytes);
        expectInOrder(port.rlHosts.data(), count, rrejRecv);
        expectInOrder(port.ptpHosts.data(), count, ackRecv);
    }
}

TEST(SnapshotSort, OrdersPortsAndNetsWithAllThatIsUnderThem) {
    BuiltSnapshot built{.from = {}, .to = {}};
    for (const uint16_t port : std::initializer_list<uint16_t>{256, 80, 65535, 1, 7500}) {
        BuiltPort& to = built.ports.emplace_back(BuiltPort{.port = port});
        for (const char* net : {"239.1.1.1", "10.0.0.255", "224.0.0.251"}) {
            SnapHost host = {};
            host.host = addressOf(net);
            host.data = port;
            to.nets.push_back({.net = addressOf(net), .hosts = {host}});
        }
    }

    SnapHeader* snapshot = built.link();
    snapshotSort(snapshot);
    const SnapPort* port = snapshot->ports;
    for (const uint16_t number : std::initializer_list<uint16_t>{1, 80, 256, 7500, 65535}) {
        ASSERT_EQ(ntohs(port->port), number);
        const SnapNet* net = port++->nets;
        for (const char* address : {"10.0.0.255", "224.0.0.251", "239.1.1.1"}) {
            EXPECT_EQ(net->net, addressOf(address));
            EXPECT_EQ(net->hosts->host, net->net);
            EXPECT_EQ(net++->hosts->data, number);
        }
    }
}

}  // namespace
