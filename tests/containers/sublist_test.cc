#include "lib/containers/sublist.h"

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <sstream>

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
    std::ranges::sort(all);
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

// A node for each beginning of a subject, a level for each that goes on and for the root.
void checkNodes(const ToyPoolMaker& maker, const std::vector<Held>& model) {
    std::set<std::string> nodes, levels = {""};
    for (const auto& [subject, value] : model) {
        for (size_t dot = 0; (dot = subject.find('.', dot)) != std::string::npos; ++dot) {
            nodes.insert(subject.substr(0, dot));
            levels.insert(subject.substr(0, dot));
        }
        nodes.insert(subject);
    }
    ASSERT_EQ(maker.pools[0]->itemsHeld, levels.size());
    ASSERT_EQ(maker.pools[1]->itemsHeld, nodes.size());
}

// In either subject there may be wildcards. An addition that memory fails leaves nothing behind.
TEST(Sublist, AgreesWithPlainComparisonThroughAddsAndRemovals) {
    EXPECT_EQ(sublistCreatePooled(), nullptr);  // without a maker of pools
    std::mt19937 random(11);
    ToyPoolMaker maker;
    const List list(sublistCreatePooled(), sublistDestroy);
    EXPECT_EQ(maker.sizes, (std::vector<uint32_t>{32, 40, 32, 64, 40, 16, 40, 16}));
    std::vector<Held> model;
    size_t failures = 0;
    for (uintptr_t step = 1; step <= 4000; ++step) {
        const std::string sought = randomSubject(random);
        if (random() % 100 < (step < 2000 ? 65 : 40)) {
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
            uint32_t removed = 0, remaining = 99;
            for (auto at = std::ranges::find_if(model, isMeant);
                 at != model.end() && (all || removed == 0);
                 at = std::ranges::find_if(model, isMeant)) {
                model.erase(at);
                ++removed;
            }
            void* value = all ? nullptr : number(victim.value);
            ASSERT_EQ(sublistRemove(list.get(), pack(victim.subject).data(), value, &remaining),
                      removed);
            ASSERT_EQ(remaining, std::ranges::count(model, victim.subject, &Held::subject));
        }
        ASSERT_EQ(list->valueCount, model.size());

        const Elements elements = split(sought);
        Numbers matching, same;
        for (const Held& held : model) {
            if (answers(elements, split(held.subject))) matching.push_back(held.value);
            if (held.subject == sought) same.push_back(held.value);
        }
        std::ranges::sort(matching);
        std::ranges::sort(same);
        ASSERT_EQ(match(list, sought), matching) << sought;
        ASSERT_EQ(sorted(sublistAll(list.get())), match(list, ">"));
        ASSERT_EQ(sorted(sublistFind(list.get(), pack(sought).data())), same) << sought;
        if (step % 8 == 0) checkNodes(maker, model);
    }
    EXPECT_GT(failures, 100u);
    for (const auto& [subject, value] : model) {
        EXPECT_EQ(sublistRemove(list.get(), pack(subject).data(), number(value), nullptr), 1u);
    }
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 0, 0, 1, 0, 0, 0, 0}));

    FailAlloc count{.after = kNeverFails};
    EXPECT_TRUE(add(list, "A.B.C", 1));
    EXPECT_FALSE(add(list, "A.B.D", 0));
    EXPECT_FALSE(sublistAdd(list.get(), Packed{0, 3, 0}.data(), number(1), nullptr));
    EXPECT_EQ(sublistMatch(list.get(), Packed{0, 3, 0}.data()), nullptr);
    EXPECT_EQ(allocationsCounted(), 17u);  // as many as the items that the pools gave
    EXPECT_EQ(maker.held(), (std::vector<size_t>{3, 3, 3, 3, 3, 2, 1, 1}));
}

// Visits all, removes the even values, one a visit.
TEST(Sublist, VisitsEachSubjectAboveThoseBelowItAndRemovesOnTheWay) {
    const List list = make();
    const Elements subjects = {"*.B", ">", "A", "A.>", "A.B", "A.B.C"};
    for (uintptr_t i = 0; i < subjects.size(); ++i) {
        EXPECT_TRUE(add(list, subjects[i], i + 1));
    }
    const auto removeEven = [](const uint8_t* subject, Dpa* values, void* seen) -> void* {
        static_cast<Elements*>(seen)->push_back(unpack(subject));
        void* first = values->items[0];
        return reinterpret_cast<uintptr_t>(first) % 2 == 0 ? first : nullptr;
    };
    Elements seen;
    sublistVisit(list.get(), removeEven, &seen);
    EXPECT_LT(std::ranges::find(seen, "A.B"), std::ranges::find(seen, "A.B.C"));
    std::ranges::sort(seen);
    EXPECT_EQ(seen, subjects);
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
        uint8_t buffer[256];
        EXPECT_FALSE(sublistNodeSubject(node, buffer, static_cast<int32_t>(subject.size())));
        EXPECT_TRUE(sublistNodeSubject(node, buffer, static_cast<int32_t>(subject.size()) + 1));
        EXPECT_EQ(Packed(buffer, buffer + subject.size()), subject);
        EXPECT_EQ(sorted(sublistMatch(list.get(), subject.data())), (Numbers{1}));

        // A visit that removes its only value.
        Packed seen;
        const auto note = [](const uint8_t* visited, Dpa* values, void* out) -> void* {
            static_cast<Packed*>(out)->assign(visited, visited + subjectLength(visited));
            return values->items[0];
        };
        sublistVisit(list.get(), note, &seen);
        EXPECT_EQ(seen, subject);
        EXPECT_EQ(list->root->table->count, 0u);
    }
}

TEST(Sublist, IsNotMadeWithoutMemory) {
    for (const bool pooled : {false, true}) {
        eachAllocationFails([pooled] {
            ToyPoolMaker maker;
            const List list(pooled ? sublistCreatePooled() : sublistCreate(), sublistDestroy);
            EXPECT_EQ(list == nullptr, allocationsFailed() != 0);
        });
    }
}

}  // namespace
