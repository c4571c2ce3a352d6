// Allocations made to fail. Test programs are linked so that malloc, calloc and realloc, as called
// from the tree's own code, come by here; operator new and the C library's inner calls do not.
//
//     FailAlloc fail{.after = 2};                   // two succeed, the third fails, then all is
//     well FailAlloc fail{.after = 0, .forGood = true};  // none succeeds until the end of the
//     scope
//
// A failing call answers null with errno ENOMEM, and a failing realloc leaves its block alone.
//
// Threads: each thread has its own plan and counts its own calls. Only one plan at a time.

#pragma once

#include <cstddef>
#include <initializer_list>

// Begins a plan and sets both counts to 0. Use FailAlloc.
bool allocationsArm(size_t after, bool forGood);

// Ends the plan: nothing fails or is counted any more, and the counts can still be asked for. For
// the checks behind the call under test.
void allocationsHeal();

// Calls under the present or last plan, failed ones included, and those that failed.
[[nodiscard]] size_t allocationsCounted();
[[nodiscard]] size_t allocationsFailed();

struct FailAlloc {
    size_t after = 0;      // how many succeed first
    bool forGood = false;  // all further ones fail, not only one
    bool armed = allocationsArm(after, forGood);

    ~FailAlloc() { allocationsHeal(); }
};

// Counts without failing.
inline constexpr size_t kNeverFails = ~size_t{0};

// Calls run() again and again, with allocation 0, 1, 2 ... failing, once and then from there on,
// until a run gets by without meeting a failure; that last run is one where all must go well. Ask
// allocationsFailed() within run for which it was. Returns the number of runs that met a failure,
// for a test to make sure that there were any.
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
