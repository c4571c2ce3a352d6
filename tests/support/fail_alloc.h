// Makes allocations fail. Test programs are linked so that calls of malloc, calloc and realloc in
// the tree's own code come here; operator new and calls within the C library do not.
//
//     FailAlloc fail{.after = 2};                   // two succeed, the third fails
//     FailAlloc fail{.after = 0, .forGood = true};  // all fail until the end of the scope
//
// A failing call returns null with errno ENOMEM, and a failing realloc leaves its block alone.
//
// Threads: each thread has its own plan and counts its own calls. Only one plan at a time.

#pragma once

#include <cstddef>

// Begins a plan and sets both counts to 0. Use FailAlloc.
bool allocationsArm(size_t after, bool forGood);

// Ends the plan: nothing fails or is counted any more, but the counts can still be read. For the
// checks after the call under test.
void allocationsHeal();

// The calls under the current or last plan, including those that failed, and the failed ones alone.
[[nodiscard]] size_t allocationsCounted();
[[nodiscard]] size_t allocationsFailed();

struct FailAlloc {
    size_t after = 0;      // how many succeed first
    bool forGood = false;  // all further ones fail, not only one
    bool armed = allocationsArm(after, forGood);

    ~FailAlloc() { allocationsHeal(); }
};

// Counts calls, none of which fails.
inline constexpr size_t kNeverFails = ~size_t{0};

// Calls run() again and again, with allocation 0, 1, 2 ... failing, once and then from there on,
// until a run meets no failure; that last run must succeed. Within a run, allocationsFailed()
// distinguishes the two. Returns the number of runs that met a failure, so that a test can check
// that there were any.
template <typename Run>
size_t eachAllocationFails(Run run) {
    constexpr size_t kRunsMax = 100000;  // a run that allocates without end must not hang the test
    size_t failing = 0;
    for (const bool forGood : {false, true}) {
        for (size_t after = 0; after < kRunsMax; ++after) {
            FailAlloc fail{.after = after, .forGood = forGood};
            run();
            if (allocationsFailed() == 0) break;
            ++failing;
        }
    }
    return failing;
}
