#include <gtest/gtest.h>

#include <algorithm>
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

// Each subject's host says the place that it had; those that look alike keep their order.
void expectSorted(const std::vector<Elements>& subjects, bool withMemory = true) {
    BuiltNet net{.net = 1};
    std::vector<std::pair<Elements, uint32_t>> expected;
    for (uint32_t place = 0; place < subjects.size(); ++place) {
        net.subjects.push_back({packSubject(subjects[place]), {{place, 0, 1, 1}}});
        expected.emplace_back(seen(subjects[place]), place);
    }
    std::sort(expected.begin(), expected.end());
    BuiltSnapshot built{.from = {}, .to = {}, .ports = {{.port = 1, .nets = {net}}}};
    SnapHeader* snapshot = built.link();
    {
        const FailAlloc fail{.after = withMemory ? kNeverFails : 0, .forGood = true};
        snapshotSort(snapshot);
    }
    for (size_t i = 0; i < subjects.size(); ++i) {
        const SnapSubject& subject = built.subjects.front()[i];
        const uint32_t place = subject.hosts->host;
        ASSERT_EQ(place, expected[i].second) << "at " << i;
        ASSERT_EQ(subject.subject, built.ports[0].nets[0].subjects[place].packed.data());
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
        expectSorted(subjects, false);
        std::sort(subjects.begin(), subjects.end());
        expectSorted(subjects);
    }
}

// Whole records move, in every array: each has its place in the order as a counter.
TEST(SnapshotSort, OrdersByUnsignedAddressesThenScids) {
    const char* addresses[] = {"0.0.0.0", "9.255.0.0", "128.0.0.1", "224.0.1.4", "255.255.255.255"};
    Random random;
    for (const size_t count : {size_t{2}, size_t{15}, size_t{16}, size_t{23}, size_t{300}}) {
        BuiltPort port{.port = 1, .nets = {{.net = 1, .subjects = {{packText("A")}}}}};
        BuiltNet& net = port.nets[0];
        std::vector<SnapSubjectHost>& senders = net.subjects[0].hosts;
        net.hosts.resize(count);
        port.rlHosts.resize(count);
        port.ptpHosts.resize(count);
        for (size_t i = 0; i < count; ++i) {
            const uint32_t address = addressOf(addresses[i * 5 / count]);
            const uint16_t scid = htons(static_cast<uint16_t>(i * 200));
            senders.push_back({address, scid, 1, i});
            net.hosts[i].host = port.rlHosts[i].host = port.ptpHosts[i].host = address;
            net.hosts[i].port = port.rlHosts[i].port = port.ptpHosts[i].port = scid;
            net.hosts[i].rbytes = port.rlHosts[i].counters.rrejRecv = i;
            port.ptpHosts[i].counters.ackRecv = i;
        }
        std::shuffle(senders.begin(), senders.end(), random.engine);
        std::shuffle(net.hosts.begin(), net.hosts.end(), random.engine);
        std::shuffle(port.rlHosts.begin(), port.rlHosts.end(), random.engine);
        std::shuffle(port.ptpHosts.begin(), port.ptpHosts.end(), random.engine);
        BuiltSnapshot built{
            .from = {}, .to = {}, .ports = {port, {.port = 0, .nets = {{.net = 5}, {.net = 3}}}}};

        const SnapHeader* snapshot = built.link();
        snapshotSort(built.link());
        EXPECT_EQ(snapshot->ports[0].nets[0].net, 3u);  // the port's nets came with it
        const SnapPort& sorted = snapshot->ports[1];
        for (size_t i = 0; i < count; ++i) {
            ASSERT_EQ(sorted.nets[0].hosts[i].rbytes, i);
            ASSERT_EQ(sorted.nets[0].subjects[0].hosts[i].bytes, i);
            ASSERT_EQ(sorted.rlHosts[i].counters.rrejRecv, i);
            ASSERT_EQ(sorted.ptpHosts[i].counters.ackRecv, i);
        }
    }
}

}  // namespace
