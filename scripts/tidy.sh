#!/usr/bin/env bash
# tidy.sh [BASE | --all]: clang-tidy with the checks of .clang-tidy on the sources that changed since
# BASE, those not committed included, or on all. A changed header is checked through its own source,
# or else through the first one that includes it.
#
# BASE is by default the merge base with main; on main itself, the commit before. A checkout without
# history has neither: then only what isn't committed is checked, and a line says so.
set -euo pipefail
cd "$(dirname "$0")/.."

sources=('lib/*.cc' 'programs/*.cc' 'trace/*.cc' 'watch/*.cc' 'bus/*.cc' 'pmd/*.cc' 'bridge/*.cc' 'python/*.cc' 'tools/*.cc')
headers=('lib/*.h' 'programs/*.h' 'trace/*.h' 'watch/*.h' 'bus/*.h' 'pmd/*.h' 'bridge/*.h' 'python/*.h' 'tools/*.h')

default_base() {
    local branch base
    for branch in origin/main main; do
        base=$(git merge-base HEAD "$branch" 2>/dev/null) || continue
        [ "$base" = "$(git rev-parse HEAD)" ] || { echo "$base" && return; }
    done
    git rev-parse --quiet --verify HEAD~1 && return
    echo "no base to compare with: only what isn't committed is checked" >&2
    echo HEAD
}

changed() { git diff --name-only --diff-filter=d "$base" -- "$@" && git ls-files --others --exclude-standard -- "$@"; }

source_of() {
    local header=$1
    if [ -f "${header%.h}.cc" ]; then echo "${header%.h}.cc" && return; fi
    git grep -lF "#include \"$header\"" -- "${sources[@]}" | head -n 1
}

to_check() {
    if [ "$base" = --all ]; then git ls-files -- "${sources[@]}" && return; fi
    local header
    changed "${sources[@]}"
    changed "${headers[@]}" | while read -r header; do source_of "$header"; done
}

base=${1:-$(default_base)}
mapfile -t files < <(to_check | sort -u)
[ ${#files[@]} -gt 0 ] || { echo "no source changed" && exit 0; }
cmake --preset tsa >/dev/null
printf '%s\n' "${files[@]}" | xargs -n 2 -P "$(nproc)" clang-tidy-14 -p build/tsa --quiet 2>/dev/null
echo "${#files[@]} sources keep the checks"
