// What the containers cost for each captured packet and each message: a look-up by address in a
// dictionary, the structure test of a subject, and its look-up among all subjects seen.
//
// "Cold" look-ups take all keys in a scattered order, so that tables larger than the caches wait
// for memory; "hot" ones repeat a few keys.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "lib/containers/dict.h"
#include "lib/containers/subject_map.h"

namespace {

constexpr size_t kLookUps = 1 << 16;
constexpr int64_t kHotKeys = 16;

std::vector<uint32_t> scattered(int64_t count, bool hot) {
    std::mt19937 random(1);
    std::vector<uint32_t> order(kLookUps);
    for (uint32_t& place : order) {
        place = static_cast<uint32_t>(
            random() % static_cast<uint64_t>(hot ? std::min(count, kHotKeys) : count));
    }
    return order;
}

// Arguments: entries, bits that the key is shifted by. Shifted by 32, all keys share a bucket.
void dictionaryFind(benchmark::State& state) {
    Dict64* dict = dict64Create(256);
    for (int64_t i = 0; i < state.range(0); ++i) {
        if (dict64Insert(dict, static_cast<uint64_t>(i) << state.range(1), dict) != 0) std::abort();
    }
    const std::vector<uint32_t> order = scattered(state.range(0), false);
    size_t at = 0;
    for (auto _ : state) {
        void* value = nullptr;
        const uint64_t key = uint64_t{order[at++ % kLookUps]} << state.range(1);
        benchmark::DoNotOptimize(dict64Find(dict, key, &value));
        benchmark::DoNotOptimize(value);
    }
    dict64Destroy(dict);
}
BENCHMARK(dictionaryFind)->Args({1, 0})->Args({4, 32})->Args({20000, 0})->Args({20000, 32});

struct Record {
    uint64_t messages, bytes;
};

struct Subjects {
    explicit Subjects(int64_t count) {
        for (int64_t i = 0; i < count; ++i) {
            const std::string text =
                "MARKET.PRICE.EXCHANGE." + std::to_string(i % 97) + "." + std::to_string(i * 7919);
            uint8_t buffer[kSubjectMaxBytes];
            const int32_t length = subjectFromText(buffer, sizeof buffer, text.c_str());
            if (length < 0) std::abort();
            packed.emplace_back(buffer, buffer + length);
        }
    }

    std::vector<std::vector<uint8_t>> packed;
};

struct FilledMap {
    explicit FilledMap(const Subjects& subjects) {
        map.pool = &pool;
        map.headBytes = sizeof(Record);
        for (const std::vector<uint8_t>& subject : subjects.packed) {
            if (!subjectMapReserve(map)) std::abort();
            const uint32_t hash = subjectHash(subject.data());
            if (subjectMapAdd(map, subject.data(), hash) == nullptr) std::abort();
        }
    }
    FilledMap(const FilledMap&) = delete;
    FilledMap& operator=(const FilledMap&) = delete;
    ~FilledMap() {
        subjectMapClear(map);
        linePoolClear(pool);
    }

    LinePool pool{};
    SubjectMap map{};
};

// Arguments: subjects, 1 for hot.
void subjectFind(benchmark::State& state) {
    const Subjects subjects(state.range(0));
    const FilledMap filled(subjects);

    // The subjects to look up are contiguous, as in packets.
    std::vector<uint8_t> packets;
    std::vector<size_t> starts;
    for (const uint32_t place : scattered(state.range(0), state.range(1) != 0)) {
        starts.push_back(packets.size());
        packets.insert(packets.end(), subjects.packed[place].begin(), subjects.packed[place].end());
    }
    size_t at = 0;
    for (auto _ : state) {
        const uint8_t* subject = packets.data() + starts[at++ % kLookUps];
        auto* record = reinterpret_cast<Record*>(
            subjectMapFind(filled.map, subject, subjectLength(subject), subjectHash(subject)));
        benchmark::DoNotOptimize(++record->messages);
    }
}
BENCHMARK(subjectFind)->Args({1000, 0})->Args({200000, 0})->Args({200000, 1});

void subjectInsertAll(benchmark::State& state) {
    const Subjects subjects(state.range(0));
    for (auto _ : state) {
        const FilledMap filled(subjects);
        benchmark::DoNotOptimize(filled.map.count);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(subjectInsertAll)->Arg(200000)->Unit(benchmark::kMillisecond);

// Argument: elements of the subject.
void subjectValidity(benchmark::State& state) {
    std::string text = "MARKET";
    for (int64_t i = 1; i < state.range(0); ++i) {
        text += ".E" + std::to_string(i % 10);
    }
    uint8_t subject[kSubjectMaxBytes];
    if (subjectFromText(subject, sizeof subject, text.c_str()) < 0) std::abort();
    for (auto _ : state) {
        benchmark::DoNotOptimize(subjectIsValid(subject));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(subjectValidity)->Arg(1)->Arg(5)->Arg(50);

}  // namespace
