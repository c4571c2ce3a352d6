#!/usr/bin/env bash
# coverage.sh: builds with the preset "coverage", runs all tests, and reports which lines of lib/,
# trace/, bus/ and pmd/ they reach: a table here, and pages in build/coverage/report. Needs the package
# gcovr.
set -euo pipefail
cd "$(dirname "$0")/.."

command -v gcovr >/dev/null || { echo "gcovr is missing: apt-get install gcovr" >&2 && exit 1; }
build=build/coverage
cmake --preset coverage >/dev/null
cmake --build "$build" -j "$(nproc)" -- --quiet
scripts/lay_modules.sh "$build/bin"
find "$build" -name '*.gcda' -delete
ctest --preset coverage -j "$(nproc)" --quiet --output-log "$build/ctest.log" ||
    { grep -vE '^ *[0-9]+/[0-9]+ Test .*Passed|^ *Start ' "$build/ctest.log" >&2; exit 1; }
mkdir -p "$build/report"
gcovr --root . --filter 'lib/' --filter 'programs/' --filter 'trace/' --filter 'bus/' --filter 'pmd/' --gcov-ignore-parse-errors --txt \
    --html-details "$build/report/index.html" "$build"
