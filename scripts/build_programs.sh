#!/usr/bin/env bash
# build_programs.sh TARGET...: for the demos. Installs what the targets are built with, and builds them into
# build/release. A build that isn't there yet leaves out tests and benches, whose libraries may be missing;
# `cmake --preset release` brings them in.
set -euo pipefail
cd "$(dirname "$0")/.."

case " $* " in
    *" pelmowatch "*) scripts/setup.sh --build ;;
    *) scripts/setup.sh --tool ;;
esac
[ -f build/release/build.ninja ] ||
    cmake --preset release -DPELMO_TESTS=OFF -DPELMO_BENCH=OFF >/dev/null
# The libraries of a program that was left out may have come since.
[[ " $* " != *" pelmowatch "* ]] || cmake build/release >/dev/null
cmake --build build/release --target "$@" -- --quiet
