#include "lib/containers/sublist.h"

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <span>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/packet_builder.h"

namespace {

using List = std::unique_ptr<SubjectList, decltype(&sublistDestroy)>;
using Elements = std::vector<std::string>;
using Values = std::multiset<uintptr_t>;

Values valuesIn(const Dpa* values) {
    const Numbers all = numbersIn(values);
    return {all.begin(), all.end()};
}

// Do values under `held` match `sought`? Element by element, without a tree.
bool answers(std::span<const std::string> sought, std::span<const std::string> held) {
    if (sought.empty() || held.empty()) return sought.empty() && held.empty();
    if (sought[0] == ">") return true;
    if (held[0] == ">") return held.size() == 1;
    if (sought[0] != "*" && held[0] != "*" && sought[0] != held[0]) return false;
    return answers(sought.subspan(1), held.subspan(1));
}

using Held = std::pair<Elements, uintptr_t>;  // subject and value

Elements randomSubject(std::mt19937& random) {
    Elements all(1 + random() % 4);
    for (size_t i = 0; i < all.size(); ++i) {
        all[i] = std::vector{"A", "B", "CC", "*", ">"}[random() % 5];
        if (all[i] == ">") all.resize(i + 1);
    }
    return all;
}

// Either subject may have wildcards. An addition without memory changes nothing.
TEST(Sublist, AgreesWithPlainComparisonThroughAddsAndRemovals) {
    EXPECT_EQ(sublistCreatePooled(), nullptr);  // without a maker of pools
    std::mt19937 random(11);
    const List owner(sublistCreate(), sublistDestroy);
    SubjectList* list = owner.get();
    std::vector<Held> model;
    size_t failures = 0;
    for (uintptr_t step = 1; step <= 2000; ++step) {
        const Elements sought = randomSubject(random);
        const Packed key = packedElements(sought);
        if (random() % 100 < (step < 1000 ? 65 : 40)) {
            const FailAlloc fail{.after = random() % 20, .forGood = random() % 2 == 0};
            const uintptr_t value = 1 + random() % 3;
            const bool added = sublistAdd(list, key.data(), number(value), nullptr);
            ASSERT_EQ(added, allocationsFailed() == 0);
            failures += allocationsFailed();
            if (added) model.push_back({sought, value});
        } else {
            const bool any = model.empty() || random() % 8 == 0, all = random() % 8 == 0;
            const Held victim = any ? Held{sought, 1} : model[random() % model.size()];
            const size_t before = model.size();
            std::erase_if(model, [&, left = all ? before : 1](const Held& held) mutable {
                const bool isMeant = held.first == victim.first && left != 0 &&
                                     (all || held.second == victim.second);
                left -= isMeant ? 1 : 0;
                return isMeant;
            });
            uint32_t remaining = 99;
            ASSERT_EQ(sublistRemove(list, packedElements(victim.first).data(),
                                    all ? nullptr : number(victim.second), &remaining),
                      before - model.size());
            ASSERT_EQ(remaining, std::ranges::count(model, victim.first, &Held::first));
        }
        ASSERT_EQ(list->valueCount, model.size());

        Values all, matching, same;
        for (const auto& [subject, value] : model) {
            all.insert(value);
            if (answers(sought, subject)) matching.insert(value);
            if (subject == sought) same.insert(value);
        }
        ASSERT_EQ(valuesIn(sublistMatch(list, key.data())), matching);
        ASSERT_EQ(valuesIn(sublistAll(list)), all);
        ASSERT_EQ(valuesIn(sublistFind(list, key.data())), same);
    }
    EXPECT_GT(failures, 20u);
    for (const auto& [subject, value] : model) {
        EXPECT_EQ(sublistRemove(list, packedElements(subject).data(), number(value), nullptr), 1u);
    }
    EXPECT_EQ(list->bytes, 0u);
    EXPECT_TRUE(list->root->only == nullptr && list->root->table == nullptr);
    EXPECT_FALSE(sublistAdd(list, Packed{0, 3, 0}.data(), number(1), nullptr));
    EXPECT_EQ(sublistMatch(list, Packed{0, 3, 0}.data()), nullptr);
}

// The table's own function has one hash for all of them. What was a large table is none when it
// holds one.
TEST(Sublist, SpreadsKeysThatSomebodyChose) {
    const List list(sublistCreate(), sublistDestroy);
    Elements keys = {""};
    for (size_t i = 0; i < 4095; ++i) {
        keys.push_back(keys[i] + "aaah");
        keys.push_back(keys[i] + "abaA");
    }
    std::erase_if(keys, [](const std::string& key) { return key.size() != 48; });
    EXPECT_EQ(hashKeyHash(keys[5].c_str(), 48), hashKeyHash(keys[77].c_str(), 48));
    for (const std::string& key : keys) {
        ASSERT_TRUE(sublistAdd(list.get(), pack(key).data(), number(1), nullptr));
    }
    const Hash* table = list->root->table;
    for (uint32_t bucket = 0; bucket < table->bucketCount; ++bucket) {
        int length = 0;
        for (auto* entry = table->buckets[bucket]; entry != nullptr; entry = entry->next)
            ASSERT_LT(++length, 20);
    }
    for (; keys.size() > 1; keys.pop_back()) {
        ASSERT_EQ(sublistRemove(list.get(), pack(keys.back()).data(), nullptr, nullptr), 1u);
    }
    EXPECT_EQ(list->root->table, nullptr);
}

// A visit calls for each subject, for one before those below it, and removes the even values, one a
// visit. Among the subjects are one of the most elements that a form holds, and one with a NUL
// among its characters: rebuilt to the byte.
TEST(Sublist, VisitsEachSubjectAndRemovesOnTheWay) {
    const List list(sublistCreate(), sublistDestroy);
    const Packed withNul = {0, 11, 2, 5, 'A', 0, 'B', 0, 3, '>', 0};
    const std::vector<Packed> subjects = {
        withNul,     pack(">"),     pack("A"),   pack("A.>"),
        pack("A.B"), pack("A.B.C"), pack("*.B"), subjectOf126Elements()};
    for (uintptr_t i = 0; i < subjects.size(); ++i) {
        SubjectNode* node = nullptr;
        EXPECT_TRUE(sublistAdd(list.get(), subjects[i].data(), number(i + 1), &node));
        uint8_t buffer[256];
        const auto size = static_cast<int32_t>(subjects[i].size());
        EXPECT_FALSE(sublistNodeSubject(node, buffer, size));
        EXPECT_TRUE(sublistNodeSubject(node, buffer, size + 1));
    }
    std::vector<Packed> seen;
    const auto removeEven = [](const uint8_t* subject, Dpa* values, void* closure) -> void* {
        auto* all = static_cast<std::vector<Packed>*>(closure);
        all->emplace_back(subject, subject + subjectLength(subject));
        return numbersIn(values)[0] % 2 == 0 ? values->items[0] : nullptr;
    };
    sublistVisit(list.get(), removeEven, &seen);
    EXPECT_LT(std::ranges::find(seen, subjects[4]), std::ranges::find(seen, subjects[5]));
    EXPECT_EQ(std::set(seen.begin(), seen.end()), std::set(subjects.begin(), subjects.end()));
    EXPECT_EQ(valuesIn(sublistAll(list.get())), (Values{1, 3, 5, 7}));
    EXPECT_EQ(list->root->gt, nullptr);
}

}  // namespace
