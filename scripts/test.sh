#!/usr/bin/env bash
# test.sh [--all | --checks | --long]: sets up what is missing, builds one configuration (assertions and
# lock ranks on, lightly optimised) and passes every suite and whole-program test in it.
#
#     --all     then what CI asks beyond that: lock annotations, fuzz targets, the sanitizers, and the
#               whole-program tests of the release build
#     --checks  only that
#     --long    --all with each fuzz target for a minute, and what takes minutes by itself: ten million
#               messages over a stalling connection, reliable endpoints for a minute and in 100,000 random
#               lives, a live run of ten minutes, the packages in a fresh root
#
# Each step says how long it usually takes on two cores that do nothing else.
set -euo pipefail
cd "$(dirname "$0")/.."

fuzz_seconds=3
tests=1 checks= long= cmake_options=
case "${1:-}" in
    "") ;;
    --all) checks=1 ;;
    --checks) tests= checks=1 ;;
    --long) checks=1 long=1 fuzz_seconds=60 ;;
    *) echo "usage: test.sh [--all | --checks | --long]" >&2 && exit 2 ;;
esac

jobs=$(nproc)
# The suites with threads. The preset keeps assertions, so that lock ranks are checked as well.
threaded_suites=(base_tests msg_tests runtime_tests transport_tests pelmo_tests trace_tests bus_tests
    pmd_tests)
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1}

step() { echo "== $*"; }

# quietly COMMAND...: shows what it prints only if it fails.
quietly() {
    local log=build/step.log
    "$@" >"$log" 2>&1 || { tail -n 60 "$log" >&2 && exit 1; }
}

# build PRESET USUALLY [TARGET ...]
build() {
    local preset=$1 usually=$2
    shift 2
    step "builds the configuration \"$preset\"; $usually, next to nothing when built before"
    cmake --preset "$preset" $cmake_options >/dev/null
    cmake --build "build/$preset" -j "$jobs" ${1:+--target "$@"} -- --quiet
    [ "$preset" = tsa ] || scripts/lay_modules.sh "build/$preset/bin"
}

fuzz() {
    local target name corpus seeds
    for target in build/fuzz/bin/*_fuzz; do
        [ -x "$target" ] || continue
        name=$(basename "$target")
        step "$name, $fuzz_seconds seconds"
        corpus=(build/fuzz/corpus/"$name")
        mkdir -p "${corpus[0]}"
        seeds=tests/fuzz/corpus/${name%_fuzz}
        [ ! -d "$seeds" ] || corpus+=("$seeds")
        quietly "$target" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=4096 \
            -artifact_prefix=build/fuzz/ "${corpus[@]}"
    done
}

suite_by_itself() {
    local title=$1 suite=$2 filter=$3
    step "$title"
    quietly "build/release/bin/$suite" --gtest_also_run_disabled_tests --gtest_brief=1 \
        --gtest_filter="$filter"
}

run_tests() {
    build test "4 minutes"
    step "runs all tests; 3 minutes"
    scripts/run_tests.py test
}

run_checks() {
    build tsa "1 minute"

    build fuzz "4 minutes" fuzzers
    fuzz

    build tsan "4 minutes" "${threaded_suites[@]}" pelmoscope pelmowatch pelmogen
    for suite in "${threaded_suites[@]}"; do
        step "$suite under the thread sanitizer"
        quietly "build/tsan/bin/$suite" --gtest_brief=1
    done
    # The server's thread and the library's, under clients that crowd and go.
    step "pelmowatch serve under the thread sanitizer"
    PELMO_BIN=build/tsan/bin quietly python3 tests/watch/serve_test.py \
        Serve.test_a_thousand_connections_leave_room_for_a_scrape Serve.test_random_requests_do_no_harm \
        Serve.test_events_come_as_intervals_end Serve.test_ends_within_a_second_with_clients

    build asan "4 minutes"
    step "runs all tests under the address and undefined-behaviour sanitizers; 4 minutes"
    scripts/run_tests.py asan

    # Its unit tests ran in the configurations before; only long ones run in this one.
    [ -n "$long" ] || cmake_options=-DPELMO_SUITES=OFF
    build release "3 minutes"
}

run_long() {
    suite_by_itself "ten million messages" pelmo_tests Stalls.DISABLED_CarryTenMillion
    RELIABLE_SECONDS=30 suite_by_itself "endpoints, a minute" transport_tests \
        ReliableEndpoints.CarryEverythingBetweenEight
    RELIABLE_SEEDS=100000 suite_by_itself "100,000 random lives of reliable endpoints" \
        transport_tests ReliableLives.HoldAllPromises
    step "300 random lives of the whole bus, 8 minutes"
    python3 tests/e2e/bus_lives.py build/release/bin/{pelmobus,pmd} --seeds 0-299 --at-once "$((jobs + 1))"
    step "soak, 10 minutes"
    python3 tests/e2e/soak.py build/release/bin/{pelmoscope,pelmogen} || [ $? = 77 ]
    step "attacks"
    python3 tests/e2e/attacks.py build/release/bin/{pmd,pelmowatch,pelmogen} || [ $? = 77 ]
    step "a million messages through bridges and a cluster that are killed, 6 minutes"
    PELMO_BIN=build/release/bin PELMO_BRIDGE_MESSAGES=1000000 python3 tests/bridge/bridge_test.py \
        Keeping.test_all_arrive_though_each_part_of_the_road_is_killed_or_stalled || [ $? = 77 ]
    step "random requests, a minute"
    PELMO_BIN=build/release/bin PELMO_FUZZ_SECONDS=60 python3 tests/watch/serve_test.py \
        Serve.test_random_requests_do_no_harm
    step "package"
    scripts/package_test.sh || [ $? = 77 ]
}

step "installs what is missing; 2 minutes the first time"
mkdir -p build
scripts/setup.sh ${checks:+$([ -n "$long" ] && echo --long || echo --all)}
step "$(python3 tests/e2e/live_run.py)"
[ -z "$tests" ] || run_tests
[ -z "$checks" ] || run_checks
[ -z "$long" ] || run_long
if [ -n "$checks" ]; then
    step "runs the whole-program tests of the release build; 2 minutes"
    scripts/run_tests.py release -R '^(e2e|bus|watch|tools)\.|^scripts\.install'
fi
