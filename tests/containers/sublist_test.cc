#include "lib/containers/sublist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/toy_pool.h"

namespace {

using List = std::unique_ptr<SubjectList, decltype(&sublistDestroy)>;
using Elements = std::vector<std::string>;

List make() {
    return List(sublistCreate(), sublistDestroy);
}

bool add(const List& list, const std::string& subject, uintptr_t value) {
    return sublistAdd(list.get(), pack(subject).data(), number(value), nullptr);
}

Numbers sorted(const Dpa* values) {
    Numbers all = numbersIn(values);
    std::sort(all.begin(), all.end());
    return all;
}

Numbers match(const List& list, const std::string& subject) {
    return sorted(sublistMatch(list.get(), pack(subject).data()));
}

Elements split(const std::string& text) {
    Elements all;
    std::stringstream stream(text);
    for (std::string element; std::getline(stream, element, '.');) {
        all.push_back(element);
    }
    return all;
}

// Does what stands under `held` answer to `sought`? Element by element, without a tree.
bool answers(std::span<const std::string> sought, std::span<const std::string> held) {
    if (sought.empty() || held.empty()) return sought.empty() && held.empty();
    if (sought[0] == ">") return true;
    if (held[0] == ">") return held.size() == 1;
    if (sought[0] != "*" && held[0] != "*" && sought[0] != held[0]) return false;
    return answers(sought.subspan(1), held.subspan(1));
}

TEST(Sublist, RefusesWhatCantBeStored) {
    const List list = make();
    const Packed empty = {0, 3, 0};
    EXPECT_FALSE(sublistAdd(list.get(), empty.data(), number(1), nullptr));
    EXPECT_FALSE(sublistAdd(list.get(), pack("A").data(), nullptr, nullptr));
    EXPECT_EQ(sublistMatch(list.get(), empty.data()), nullptr);
    EXPECT_EQ(list->root->table->count, 0u);
}

TEST(Sublist, RemovesOneValueOrAll) {
    const List list = make();
    for (const uintptr_t value : {7u, 7u, 8u}) {
        EXPECT_TRUE(add(list, "A.B.C", value));
    }
    EXPECT_TRUE(add(list, "A", 9));
    const struct {
        const char* subject;
        uintptr_t value;
        uint32_t removed, remaining, valueCount;
    } cases[] = {
        {"A.B.C", 5, 0, 3, 4}, {"A.B.C", 7, 1, 2, 3}, {"A.B", 7, 0, 0, 3},
        {"A.X.C", 7, 0, 0, 3}, {"A.B.C", 0, 2, 0, 1}, {"A.B.C", 0, 0, 0, 1},
    };
    for (const auto& c : cases) {
        uint32_t remaining = 99;
        EXPECT_EQ(sublistRemove(list.get(), pack(c.subject).data(), number(c.value), &remaining),
                  c.removed);
        EXPECT_EQ(remaining, c.remaining);
        EXPECT_EQ(list->valueCount, c.valueCount);
    }
    EXPECT_EQ(match(list, ">"), (Numbers{9}));
}

// With pools one sees what a removal frees: all that nothing else needs, and the root never.
TEST(Sublist, FreesNodesAndLevelsThatServeNothing) {
    EXPECT_EQ(sublistCreatePooled(), nullptr);
    ToyPoolMaker maker;
    const List list(sublistCreatePooled(), sublistDestroy);
    EXPECT_EQ(maker.sizes, (std::vector<uint32_t>{32, 40, 32, 64, 40, 16, 40, 16}));
    const ToyPool& levels = *maker.pools[0];
    const ToyPool& nodes = *maker.pools[1];

    const auto takes = [&maker] {
        size_t all = 0;
        for (const ToyPool* pool : maker.pools) {
            all += pool->takes;
        }
        return all;
    };
    const size_t takesBefore = takes();
    {
        FailAlloc count{.after = kNeverFails};
        EXPECT_TRUE(add(list, "A.B.C", 1));
        EXPECT_EQ(allocationsCounted(), takes() - takesBefore);  // nothing from the heap
    }
    EXPECT_TRUE(add(list, "A.B.C.>", 2));
    EXPECT_TRUE(add(list, "A.*", 3));
    EXPECT_EQ(nodes.held(), 5u);
    EXPECT_EQ(sublistRemove(list.get(), pack("A.B.C").data(), nullptr, nullptr), 1u);
    EXPECT_EQ(nodes.held(), 5u);  // A.B.C.> hangs below
    EXPECT_EQ(sublistRemove(list.get(), pack("A.B.C.>").data(), number(2), nullptr), 1u);
    EXPECT_EQ(nodes.held(), 2u);
    EXPECT_EQ(levels.held(), 2u);
    EXPECT_EQ(match(list, "A.B.C.D"), Numbers());
    EXPECT_EQ(sublistRemove(list.get(), pack("A.*").data(), number(3), nullptr), 1u);
    EXPECT_EQ(nodes.held(), 0u);
    EXPECT_EQ(levels.held(), 1u);
    for (size_t i = 2; i < maker.pools.size(); ++i) {
        EXPECT_EQ(maker.pools[i]->held(), i == 3 || i == 5 ? 1u : 0u) << i;
    }
}

struct Held {
    std::string subject;
    uintptr_t value;
};

std::string randomSubject(std::mt19937& random) {
    std::string text;
    for (size_t left = 1 + random() % 4; left > 0; --left) {
        const char* element = &"A\0B\0CC\0*\0>"[std::vector<int>{0, 2, 4, 7, 9}[random() % 5]];
        if (*element == '>') left = 1;
        text += (text.empty() ? "" : ".") + std::string(element);
    }
    return text;
}

// In either there may be wildcards.
TEST(Sublist, AgreesWithPlainComparisonThroughAddsAndRemovals) {
    std::mt19937 random(11);
    const List list = make();
    std::vector<Held> model;
    for (uintptr_t step = 1; step <= 4000; ++step) {
        const std::string subject = randomSubject(random);
        if (random() % 100 < (step < 2000 ? 60 : 40)) {
            ASSERT_TRUE(add(list, subject, step));
            model.push_back({subject, step});
        } else if (!model.empty()) {
            const size_t at = random() % model.size();
            const Held victim = model[at];
            model.erase(model.begin() + static_cast<ptrdiff_t>(at));
            ASSERT_EQ(sublistRemove(list.get(), pack(victim.subject).data(), number(victim.value),
                                    nullptr),
                      1u);
        }
        ASSERT_EQ(list->valueCount, model.size());

        const std::string sought = randomSubject(random);
        const Elements elements = split(sought);
        Numbers matching, same;
        for (const Held& held : model) {
            if (answers(elements, split(held.subject))) matching.push_back(held.value);
            if (held.subject == sought) same.push_back(held.value);
        }
        ASSERT_EQ(match(list, sought), matching) << sought;
        ASSERT_EQ(sorted(sublistAll(list.get())), match(list, ">"));
        ASSERT_EQ(sorted(sublistFind(list.get(), pack(sought).data())), same) << sought;
    }
    for (const Held& held : model) {
        EXPECT_EQ(sublistRemove(list.get(), pack(held.subject).data(), number(held.value), nullptr),
                  1u);
    }
    EXPECT_EQ(list->root->table->count, 0u);
    EXPECT_EQ(list->root->star, nullptr);
    EXPECT_EQ(list->root->gt, nullptr);
}

// Visits all, removes the even values, one a visit.
TEST(Sublist, VisitsEachSubjectAboveThoseBelowItAndRemovesOnTheWay) {
    const List list = make();
    const Elements subjects = {"A", "A.B", "A.B.C", "A.>", "*.B", ">"};
    for (uintptr_t i = 0; i < subjects.size(); ++i) {
        EXPECT_TRUE(add(list, subjects[i], i + 1));
    }
    const auto removeEven = [](const uint8_t* subject, Dpa* values, void* argument) -> void* {
        static_cast<Elements*>(argument)->push_back(unpack(subject));
        void* first = values->items[0];
        return reinterpret_cast<uintptr_t>(first) % 2 == 0 ? first : nullptr;
    };
    Elements seen;
    sublistVisit(list.get(), removeEven, &seen);
    EXPECT_LT(std::find(seen.begin(), seen.end(), "A.B"),
              std::find(seen.begin(), seen.end(), "A.B.C"));
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (Elements{"*.B", ">", "A", "A.>", "A.B", "A.B.C"}));
    EXPECT_EQ(list->valueCount, 3u);
    EXPECT_EQ(match(list, ">"), (Numbers{1, 3, 5}));
    EXPECT_EQ(list->root->gt, nullptr);
}

// The most elements that a form holds, and a NUL among characters.
TEST(Sublist, RebuildsSubjectsToTheByte) {
    const Packed inner = {0, 11, 2, 5, 'A', 0, 'B', 0, 3, '>', 0};
    for (const Packed& subject : {pack("A.B.C"), subjectOf126Elements(), inner}) {
        const List list = make();
        SubjectNode* node = nullptr;
        ASSERT_TRUE(sublistAdd(list.get(), subject.data(), number(1), &node));
        EXPECT_EQ(sublistNodeValueCount(node), 1u);

        uint8_t buffer[256];
        EXPECT_FALSE(sublistNodeSubject(node, buffer, static_cast<int32_t>(subject.size())));
        EXPECT_TRUE(sublistNodeSubject(node, buffer, static_cast<int32_t>(subject.size()) + 1));
        EXPECT_EQ(Packed(buffer, buffer + subject.size()), subject);
        EXPECT_EQ(sorted(sublistMatch(list.get(), subject.data())), (Numbers{1}));

        Packed seen;
        sublistVisit(
            list.get(),
            [](const uint8_t* visited, Dpa*, void* out) -> void* {
                static_cast<Packed*>(out)->assign(visited, visited + subjectLength(visited));
                return nullptr;
            },
            &seen);
        EXPECT_EQ(seen, subject);
        EXPECT_EQ(sublistRemove(list.get(), subject.data(), nullptr, nullptr), 1u);
        EXPECT_EQ(list->root->table->count, 0u);
    }
}

TEST(Sublist, LeavesNoTraceOfAnAdditionThatMemoryFails) {
    const Elements subjects = {"A.B.C", "A.B", "A.*", "D.>", "A.B", "A.B", "D.E.F.G"};
    for (const bool pooled : {false, true}) {
        const size_t failed = eachAllocationFails([&] {
            ToyPoolMaker maker;
            const List list(pooled ? sublistCreatePooled() : sublistCreate(), sublistDestroy);
            if (list == nullptr) return;
            Numbers held;
            for (uintptr_t i = 0; i < subjects.size(); ++i) {
                if (add(list, subjects[i], i + 1)) held.push_back(i + 1);
                EXPECT_EQ(list->valueCount, held.size());
            }
            allocationsHeal();
            EXPECT_EQ(match(list, ">"), held);
            for (const uintptr_t value : held) {
                EXPECT_EQ(sublistRemove(list.get(), pack(subjects[value - 1]).data(), number(value),
                                        nullptr),
                          1u);
            }
            EXPECT_EQ(list->root->table->count, 0u);
        });
        EXPECT_GT(failed, 60u);
    }
}

}  // namespace
