#!/usr/bin/env bash
# format.sh [--check]: formats the tree's C++ sources in place; with --check changes nothing and fails
# where something would change.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=(-i)
[ "${1:-}" != --check ] || mode=(--dry-run --Werror)
git ls-files -z --cached --others --exclude-standard '*.c' '*.cc' '*.h' '*.hpp' |
    xargs -0 -r -n 32 -P 2 clang-format-14 "${mode[@]}"
