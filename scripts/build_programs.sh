#!/usr/bin/env bash
# build_programs.sh TARGET...: for the demos. Installs what the tool and the programs of the bus are built
# with, and builds the targets into build/release. A build that isn't there yet leaves out the tests, whose
# libraries may be missing; `cmake --preset release` brings them in.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --tool
[ -f build/release/build.ninja ] ||
    cmake --preset release -DPELMO_TESTS=OFF -DPELMO_BENCH=OFF >/dev/null
cmake --build build/release --target "$@" -- --quiet
