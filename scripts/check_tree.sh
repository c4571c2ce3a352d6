#!/usr/bin/env bash
# Checks the rules of the tree that no compiler checks, without building anything. Prints what
# breaks them.
set -uo pipefail
cd "$(dirname "$0")/.."

failed=0
complain() {
    failed=1
    printf '%s:\n%s\n' "$1" "$2" | head -n 40
}

# rule WORDS COMMAND...: whatever the command prints breaks the rule.
rule() {
    local words=$1 out
    shift
    out=$("$@" 2>&1)
    [ -z "$out" ] || complain "$words" "$out"
}

files() { git ls-files --cached --others --exclude-standard -- "$@" | while read -r f; do [ ! -f "$f" ] || echo "$f"; done; }
search() { git grep -nIiE --untracked "$@" -- . ':!scripts/check_tree.sh'; }

headers_without_guard() { files '*.h' | xargs -r grep -L '^#pragma once$'; }
large_files() { files . | xargs -r -d '\n' stat -c '%s %n' | awk '$1 > 1048576'; }
long_sources() { files '*.cc' '*.h' | xargs -r wc -l | awk '$2 != "total" && $1 > 800 { print $2 ": " $1 }'; }
shell_scripts() { files scripts .ci samples bench tools | xargs -r grep -lE '^#!.*\b(ba)?sh\b'; }
broken_scripts() { shell_scripts | while read -r f; do bash -n "$f"; done; }
not_executable() { files . | xargs -r -d '\n' grep -lE -m 1 '^#!/' | while read -r f; do
    [ ! -x "$f" ] && head -c 2 "$f" | grep -q '#!' && echo "$f"; done; }
sleeping_tests() { files 'tests/*.cc' 'tests/*.h' | xargs -r grep -nE '\b(u|nano)?sleep(_for|_until)?\('; }
text_as_markup() { git grep -nIE --untracked '(inner|outer)HTML|insertAdjacentHTML|document\.write|createContextualFragment|\b(eval|Function)\(' -- 'watch/web/*.js'; }
trailing_blanks() { git grep -nIE --untracked '[[:blank:]]+$' -- '*.cc' '*.h' '*.sh' '*.py' '*.txt' '*.cmake' '*.md' ':!tests/e2e/cases'; }

rule "includes that don't point down" python3 scripts/check_layers .
rule "not formatted; run scripts/format.sh" scripts/format.sh --check
rule "headers without #pragma once" headers_without_guard
rule "files above a megabyte" large_files
rule "sources above 800 lines" long_sources
rule "shell scripts that don't parse" broken_scripts
rule "scripts that aren't executable" not_executable
rule "tests that sleep" sleeping_tests
rule "pages that make markup or a script of text" text_as_markup
rule "blanks at the end of a line" trailing_blanks
rule "words that have no place in the tree" search \
    '\bthe sp[e]c\b|sp[e]c\.md|sp[e]cification document|\bP[a]rts? [1-7](\.[0-9])?\b|\bper sp[e]c\b'
rule "names of mirrors: they come from the machine" search \
    '(deb|security|snapshot|archive|ftp[.a-z]*)\.debian\.o[r]g|registry\.npm[j]s|proxy\.gol[a]ng'

[ $failed = 0 ] && echo "the tree keeps its rules"
exit $failed
