#include "lib/containers/sublist.h"

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <sstream>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"

namespace {

using List = std::unique_ptr<SubjectList, decltype(&sublistDestroy)>;
using Elements = std::vector<std::string>;
using Values = std::multiset<uintptr_t>;

List make() {
    return List(sublistCreate(), sublistDestroy);
}

bool add(const List& list, const std::string& subject, uintptr_t value) {
    return sublistAdd(list.get(), pack(subject).data(), number(value), nullptr);
}

Values valuesIn(const Dpa* values) {
    const Numbers all = numbersIn(values);
    return {all.begin(), all.end()};
}

Values match(const List& list, const std::string& subject) {
    return valuesIn(sublistMatch(list.get(), pack(subject).data()));
}

Elements split(const std::string& text) {
    Elements all;
    std::stringstream stream(text);
    for (std::string element; std::getline(stream, element, '.');) {
        all.push_back(element);
    }
    return all;
}

// Do values under `held` match `sought`? Element by element, without a tree.
bool answers(std::span<const std::string> sought, std::span<const std::string> held) {
    if (sought.empty() || held.empty()) return sought.empty() && held.empty();
    if (sought[0] == ">") return true;
    if (held[0] == ">") return held.size() == 1;
    if (sought[0] != "*" && held[0] != "*" && sought[0] != held[0]) return false;
    return answers(sought.subspan(1), held.subspan(1));
}

struct Held {
    std::string subject;
    uintptr_t value;
};

std::string randomSubject(std::mt19937& random) {
    std::string text;
    for (size_t left = 1 + random() % 4; left > 0; --left) {
        const std::string element = std::vector{"A", "B", "CC", "*", ">"}[random() % 5];
        if (element == ">") left = 1;
        text += (text.empty() ? "" : ".") + element;
    }
    return text;
}

// Either subject may have wildcards. An addition without memory changes nothing.
TEST(Sublist, AgreesWithPlainComparisonThroughAddsAndRemovals) {
    EXPECT_EQ(sublistCreatePooled(), nullptr);  // without a maker of pools
    std::mt19937 random(11);
    const List list = make();
    std::vector<Held> model;
    size_t failures = 0;
    for (uintptr_t step = 1; step <= 2000; ++step) {
        const std::string sought = randomSubject(random);
        if (random() % 100 < (step < 1000 ? 65 : 40)) {
            const Held addition = {randomSubject(random), 1 + random() % 3};
            const FailAlloc fail{.after = random() % 20, .forGood = random() % 2 == 0};
            const bool added = add(list, addition.subject, addition.value);
            ASSERT_EQ(added, allocationsFailed() == 0);
            failures += allocationsFailed();
            if (added) model.push_back(addition);
        } else {
            const Held victim = model.empty() || random() % 8 == 0 ? Held{sought, 1}
                                                                   : model[random() % model.size()];
            const bool all = random() % 8 == 0;
            const auto isMeant = [&](const Held& held) {
                return held.subject == victim.subject && (all || held.value == victim.value);
            };
            const size_t before = model.size();
            if (all) {
                std::erase_if(model, isMeant);
            } else if (auto at = std::ranges::find_if(model, isMeant); at != model.end()) {
                model.erase(at);
            }
            void* value = all ? nullptr : number(victim.value);
            uint32_t remaining = 99;
            ASSERT_EQ(sublistRemove(list.get(), pack(victim.subject).data(), value, &remaining),
                      before - model.size());
            ASSERT_EQ(remaining, std::ranges::count(model, victim.subject, &Held::subject));
        }
        ASSERT_EQ(list->valueCount, model.size());

        const Elements elements = split(sought);
        std::multiset<uintptr_t> all, matching, same;
        for (const auto& [subject, value] : model) {
            all.insert(value);
            if (answers(elements, split(subject))) matching.insert(value);
            if (subject == sought) same.insert(value);
        }
        ASSERT_EQ(match(list, sought), matching) << sought;
        ASSERT_EQ(valuesIn(sublistAll(list.get())), all);
        ASSERT_EQ(valuesIn(sublistFind(list.get(), pack(sought).data())), same) << sought;
    }
    EXPECT_GT(failures, 20u);
    for (const auto& [subject, value] : model) {
        EXPECT_EQ(sublistRemove(list.get(), pack(subject).data(), number(value), nullptr), 1u);
    }
    EXPECT_EQ(list->bytes, 0u);
    EXPECT_TRUE(list->root->only == nullptr && list->root->table == nullptr);
    EXPECT_FALSE(sublistAdd(list.get(), Packed{0, 3, 0}.data(), number(1), nullptr));
    EXPECT_EQ(sublistMatch(list.get(), Packed{0, 3, 0}.data()), nullptr);
}

// All have one hash by the table's own function.
std::string colliding(uint32_t number) {
    std::string text;
    for (int bit = 0; bit < 12; ++bit, number >>= 1) {
        text += (number & 1) != 0 ? "aaah" : "abaA";
    }
    return text;
}

TEST(Sublist, SpreadsKeysThatSomebodyChose) {
    const List list = make();
    for (uint32_t i = 0; i < 4096; ++i) {
        ASSERT_TRUE(add(list, colliding(i), 1 + i));
    }
    EXPECT_EQ(hashKeyHash(colliding(5).c_str(), 49), hashKeyHash(colliding(77).c_str(), 49));
    const Hash* table = list->root->table;
    for (uint32_t bucket = 0; bucket < table->bucketCount; ++bucket) {
        size_t length = 0;
        for (auto* entry = table->buckets[bucket]; entry != nullptr; entry = entry->next) {
            ++length;
        }
        EXPECT_LT(length, 20u);
    }
    // What was a large table once is none when it holds one.
    for (uint32_t i = 1; i < 4096; ++i) {
        ASSERT_EQ(sublistRemove(list.get(), pack(colliding(i)).data(), nullptr, nullptr), 1u);
    }
    EXPECT_EQ(list->root->table, nullptr);
}

// A visit calls for each subject, for one before those below it, and removes the even values, one a
// visit. Among the subjects are one of the most elements that a form holds, and one with a NUL
// among its characters: rebuilt to the byte.
TEST(Sublist, VisitsEachSubjectAndRemovesOnTheWay) {
    const List list = make();
    const std::vector<Packed> subjects = {pack("*.B"),
                                          pack(">"),
                                          pack("A"),
                                          pack("A.>"),
                                          pack("A.B"),
                                          pack("A.B.C"),
                                          subjectOf126Elements(),
                                          {0, 11, 2, 5, 'A', 0, 'B', 0, 3, '>', 0}};
    for (uintptr_t i = 0; i < subjects.size(); ++i) {
        SubjectNode* node = nullptr;
        EXPECT_TRUE(sublistAdd(list.get(), subjects[i].data(), number(i + 1), &node));
        uint8_t buffer[256];
        const auto size = static_cast<int32_t>(subjects[i].size());
        EXPECT_FALSE(sublistNodeSubject(node, buffer, size));
        EXPECT_TRUE(sublistNodeSubject(node, buffer, size + 1));
    }
    const auto removeEven = [](const uint8_t* subject, Dpa* values, void* seen) -> void* {
        static_cast<std::vector<Packed>*>(seen)->emplace_back(subject,
                                                              subject + subjectLength(subject));
        void* first = values->items[0];
        return reinterpret_cast<uintptr_t>(first) % 2 == 0 ? first : nullptr;
    };
    std::vector<Packed> seen;
    sublistVisit(list.get(), removeEven, &seen);
    EXPECT_LT(std::ranges::find(seen, subjects[4]), std::ranges::find(seen, subjects[5]));
    EXPECT_EQ(std::set(seen.begin(), seen.end()), std::set(subjects.begin(), subjects.end()));
    EXPECT_EQ(valuesIn(sublistAll(list.get())), (Values{1, 3, 5, 7}));
    EXPECT_EQ(list->root->gt, nullptr);
}

}  // namespace
