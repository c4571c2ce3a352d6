// Small pieces that tests of any folder use: a base of fixtures, random numbers, threads that start
// together, clocks and limits that a test sets, and what a run of the library leaves in the
// process.

#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

#include "lib/base/clock.h"
#include "lib/base/sanitizer.h"
#include "lib/containers/dpa.h"
#include "lib/runtime/id.h"

// The base of fixtures that hold a resource.
struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

// Random numbers, the same in each run.
struct Random {
    std::mt19937 engine;

    uint32_t operator()() { return static_cast<uint32_t>(engine()); }
    uint32_t below(uint32_t limit) { return (*this)() % limit; }
    bool oneIn(uint32_t chances) { return below(chances) == 0; }
};

// Calls act(thread, round), both counted from 0, on `threadCount` threads that start each round
// together.
template <typename Act>
void race(int threadCount, int rounds, Act act) {
    std::barrier meeting(threadCount);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < rounds; ++round) {
                meeting.arrive_and_wait();
                act(thread, round);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// Waits until it is true, for so many seconds at the most by the system's clock.
template <typename Condition>
[[nodiscard]] bool within(double seconds, Condition isTrue) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!isTrue()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        (void)poll(nullptr, 0, 1);
    }
    return true;
}

// Lowers a limit of the process while it exists: RLIMIT_NOFILE, so that no more descriptors are
// given, or RLIMIT_FSIZE, which acts as a full disk.
struct LowLimit : NoCopy {
    LowLimit(__rlimit_resource_t what, rlim_t most) : resource(what) {
        std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit shall fail and not end the tests
        getrlimit(resource, &former);
        const rlimit low = {most, former.rlim_max};
        setrlimit(resource, &low);
    }
    ~LowLimit() { setrlimit(resource, &former); }

    const __rlimit_resource_t resource;
    rlimit former;
};

// Replaces a clock of the library by one that moves only when it is set. Only one of each kind may
// exist at a time.
template <ClockSource (*setSource)(ClockSource)>
struct StoppedClock : NoCopy {
    explicit StoppedClock(int64_t seconds, int64_t nanoseconds = 0) {
        set(seconds, nanoseconds);
        former = setSource(read);
    }
    ~StoppedClock() { setSource(former); }

    // Other threads may see one part changed before the other.
    static void set(int64_t seconds, int64_t nanoseconds = 0) {
        secondsNow = seconds;
        nanosecondsNow = nanoseconds;
    }

  private:
    static timespec read() { return {secondsNow.load(), nanosecondsNow.load()}; }

    static inline std::atomic<int64_t> secondsNow;
    static inline std::atomic<int64_t> nanosecondsNow;
    ClockSource former;
};

// Another monotonic clock while it exists; null for the system's.
struct MonotonicClock : NoCopy {
    explicit MonotonicClock(ClockSource source) : former(clockSetMonotonicSource(source)) {}
    ~MonotonicClock() { clockSetMonotonicSource(former); }

    const ClockSource former;
};

using FixedClock = StoppedClock<clockSetSource>;               // the wall clock: clockNow
using FixedMonotonic = StoppedClock<clockSetMonotonicSource>;  // clockSteadySeconds

inline constexpr IdType kIdTypes[] = {IdType::kEvent, IdType::kQueue, IdType::kQueueGroup,
                                      IdType::kTransport, IdType::kDispatcher};

// The number of objects with ids, which a call that fails without memory must not change.
inline size_t objectCount() {
    Dpa* const ids = dpaCreate(1);
    for (const IdType type : kIdTypes)
        EXPECT_TRUE(idTableList(type, ids));
    const size_t count = ids->count;
    dpaDestroy(ids);
    return count;
}

inline size_t entriesIn(const char* path) {
    const std::filesystem::directory_iterator entries(path);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// Threads that run. One that was joined is listed for a moment longer, with PF_EXITING among the
// flags in its line.
inline size_t threadCount() {
    constexpr unsigned kExiting = 4;
    size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream stat(task.path() / "stat");
        char state = 0;
        long ignored = 0;
        unsigned flags = kExiting;
        stat.ignore(std::numeric_limits<std::streamsize>::max(), ')') >> state;
        for (int i = 0; i < 5; ++i)
            stat >> ignored;
        stat >> flags;
        count += (flags & kExiting) == 0 ? 1 : 0;
    }
    return count;
}

// What a whole run of the library may leave in the process.
struct Leftovers {
    size_t descriptors;
    size_t threads;
    size_t objects;

    bool operator==(const Leftovers&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Leftovers& left) {
    return out << left.descriptors << " descriptors, " << left.threads << " threads, "
               << left.objects << " objects";
}

inline Leftovers leftovers() {
    return {entriesIn("/proc/self/fd"), threadCount(), objectCount()};
}

// Waits for what other threads still end. Returns the bounds when nothing is above them, else what
// is left in the end; with `anyDescriptors` their number is within the bound. Threads that were
// ending when the bounds were counted may have gone since.
inline Leftovers leftoversOnceThey(const Leftovers& become, bool anyDescriptors = false) {
    Leftovers now = {};
    for (int look = 0; look <= 5'000; ++look) {
        now = leftovers();
        if ((anyDescriptors || now.descriptors <= become.descriptors) &&
            now.threads <= become.threads && now.objects <= become.objects)
            return become;
        (void)poll(nullptr, 0, 1);
    }
    return now;
}

inline bool noMemoryIsLost() {
#ifdef PELMO_ADDRESS_SANITIZER
    return __lsan_do_recoverable_leak_check() == 0;
#else
    return true;
#endif
}
