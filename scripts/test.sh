#!/usr/bin/env bash
# test.sh [--long]: sets up what is missing, builds, and runs every test: under the sanitizers, the
# fuzz targets for a few seconds each, the checks of lock annotations, and at last the release
# build, whose count of tests is the last output. With --long each fuzz target runs for a minute,
# and ten million messages over a stalling connection, reliable endpoints for a minute and in 100,000
# random lives, a live run of ten minutes, a bus of two capture points in Prometheus and the package in a
# fresh root are tested before that.
set -euo pipefail
cd "$(dirname "$0")/.."

fuzz_seconds=3
long=
case "${1:-}" in
    --long) fuzz_seconds=60 && long=1 ;;
    "") ;;
    *) echo "usage: test.sh [--long]" >&2 && exit 2 ;;
esac

jobs=$(nproc)
# The suites with threads. The preset keeps assertions, so that lock ranks are checked as well.
threaded_suites=(base_tests msg_tests runtime_tests transport_tests pelmo_tests trace_tests bus_tests
    pmd_tests)
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1}

step() { echo "== $*"; }

# build PRESET [TARGET ...]
build() {
    local preset=$1
    shift
    step "build $preset"
    cmake --preset "$preset" >/dev/null
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
        "$target" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=4096 \
            -artifact_prefix=build/fuzz/ "${corpus[@]}" >"build/fuzz/$name.log" 2>&1 ||
            { tail -n 60 "build/fuzz/$name.log" >&2; exit 1; }
    done
}

scripts/setup.sh ${long:+--long}
step "$(python3 tests/e2e/live_run.py)"

build tsa

build fuzz fuzzers
fuzz

build tsan "${threaded_suites[@]}"
for suite in "${threaded_suites[@]}"; do
    step "tsan $suite"
    "build/tsan/bin/$suite" --gtest_brief=1
done

# The server's thread and the library's, under clients that crowd and go.
build tsan pelmoscope pelmowatch pelmogen
step "tsan pelmowatch serve"
python3 tests/watch/serve_test.py build/tsan/bin/{pelmoscope,pelmowatch,pelmogen} \
    Serve.test_a_thousand_connections_leave_room_for_a_scrape Serve.test_random_requests_do_no_harm \
    Serve.test_events_come_as_intervals_end Serve.test_ends_within_a_second_with_clients

build asan
step "asan"
ctest --preset asan --no-tests=error -j "$jobs" --quiet --output-log build/asan/ctest.log ||
    { grep -vE '^ *[0-9]+/[0-9]+ Test .*Passed|^ *Start ' build/asan/ctest.log >&2; exit 1; }

build release
if [ -n "$long" ]; then
    step "ten million messages"
    build/release/bin/pelmo_tests --gtest_also_run_disabled_tests --gtest_brief=1 \
        --gtest_filter=Stalls.DISABLED_CarryTenMillion
    step "endpoints, a minute"
    build/release/bin/transport_tests --gtest_also_run_disabled_tests --gtest_brief=1 \
        --gtest_filter=ReliableEndpoints.DISABLED_CarryEverythingForAMinute
    step "100,000 random lives of reliable endpoints"
    build/release/bin/transport_tests --gtest_also_run_disabled_tests --gtest_brief=1 \
        --gtest_filter=ReliableLives.DISABLED_HoldThemOftener
    step "soak, 10 minutes"
    python3 tests/e2e/soak.py build/release/bin/{pelmoscope,pelmogen} || [ $? = 77 ]
    step "attacks"
    python3 tests/e2e/attacks.py build/release/bin/pmd
    step "two capture points and Prometheus"
    python3 tests/watch/prometheus_test.py build/release/bin/{pelmowatch,pelmogen} || [ $? = 77 ]
    step "random requests, a minute"
    python3 tests/watch/serve_test.py build/release/bin/{pelmoscope,pelmowatch,pelmogen} --fuzz 60 \
        Serve.test_random_requests_do_no_harm
    step "package"
    scripts/package_test.sh || [ $? = 77 ]
fi
step "release"
ctest --preset release --no-tests=error -j "$jobs"
