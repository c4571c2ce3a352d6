#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/support/fail_alloc.h"
#include "tests/support/packet_builder.h"
#include "trace/counts/snapshot.h"

namespace {

using Elements = std::vector<std::string>;

constexpr size_t kSubjectBytesMax = 255;

// What counts of a subject: each element up to its first NUL. Vectors of texts then compare as
// subjects do.
Elements seen(const Elements& elements) {
    Elements cut;
    for (const std::string& element : elements)
        cut.emplace_back(element.c_str());
    return cut;
}

// Each subject's host says the place that it had; those that look alike keep their order.
void expectSorted(const std::vector<Elements>& subjects, bool withMemory = true) {
    std::vector<Bytes> packed;
    std::vector<SnapSubjectHost> hosts;
    std::vector<std::pair<Elements, uint32_t>> expected;
    for (const Elements& subject : subjects) {
        const auto place = static_cast<uint32_t>(hosts.size());
        packed.push_back(packedElements(subject));
        hosts.push_back({place, 0, 1, 1});
        expected.emplace_back(seen(subject), place);
    }
    std::sort(expected.begin(), expected.end());
    std::vector<SnapSubject> records;
    for (size_t i = 0; i < subjects.size(); ++i) {
        records.push_back({packed[i].data(), 1, 1, 1, &hosts[i]});
    }
    SnapNet net{};
    net.subjectCount = static_cast<uint32_t>(records.size());
    net.subjects = records.data();
    SnapPort port{};
    port.netCount = 1;
    port.nets = &net;
    SnapHeader snapshot{};
    snapshot.portCount = 1;
    snapshot.ports = &port;
    {
        const FailAlloc fail{.after = withMemory ? kNeverFails : 0, .forGood = true};
        snapshotSort(&snapshot);
    }
    for (size_t i = 0; i < records.size(); ++i) {
        const uint32_t place = records[i].hosts->host;
        ASSERT_EQ(place, expected[i].second) << "at " << i;
        ASSERT_EQ(records[i].subject, packed[place].data());
    }
}

struct Random {
    std::mt19937 engine{20240229};

    size_t below(size_t limit) { return engine() % limit; }

    // Of few characters, NUL among them, so that most subjects share long beginnings.
    std::string element(size_t lengthMax) {
        constexpr char kCharacters[] = {'\0', '\1', 'A', 'B', 'B', 'B', '\xff'};
        std::string text;
        for (size_t left = below(lengthMax + 1); left > 0; --left)
            text += kCharacters[below(sizeof kCharacters)];
        return text;
    }

    Elements subject(size_t lengthMax, const Elements& prefix) {
        Elements elements = prefix;
        size_t bytes = packedElements(prefix).size();
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
        for (Elements& subject : subjects)
            subject = random.subject(lengthMax, prefix);
        expectSorted(subjects);
        expectSorted(subjects, false);
        std::sort(subjects.begin(), subjects.end());
        expectSorted(subjects);
    }
}

}  // namespace
