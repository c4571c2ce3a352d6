#!/usr/bin/env bash
# Installs what is missing, builds, and runs a whole bus on this machine for some seconds: the daemon, a
# listener, a sender, a request with its answer, and pelmoscope beside them, which counts the packets
# that the daemon puts on the loopback. Only watching needs the right to capture.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build_programs.sh pelmoscope pelmobus pmd

bin=build/release/bin
port=${1:-17500}
group=239.255.0.1
bus=("$bin/pelmobus" --daemon "127.0.0.1:$port")
work=$(mktemp -d)
started=()

clean_up() {
    [ ${#started[@]} = 0 ] || kill "${started[@]}" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap clean_up EXIT

step() { printf '\n== %s\n' "$*"; }

# start NAME COMMAND...: runs it in the background; its output goes to files of that name.
start() {
    local name=$1
    shift
    "$@" >"$work/$name.out" 2>"$work/$name.err" &
    started+=($!)
}

# await WHAT COMMAND...: until the command succeeds, at most ten seconds.
await() {
    local what=$1 i
    shift
    for ((i = 0; i < 100; ++i)); do
        ! "$@" 2>/dev/null || return 0
        sleep 0.1
    done
    echo "$what didn't come in ten seconds" >&2
    cat "$work"/*.err >&2
    exit 1
}

listens() { (: <>"/dev/tcp/127.0.0.1/$port"); }
says() { grep -q "$1" "$work/$2"; }
runs() { kill -0 "$1" 2>/dev/null; }

# The last table with traffic in it, up to the next one.
last_report() { awk '/^Snapshot /{report = ""} {report = report $0 "\n"} / 239\./{found = report} END {printf "%s", found}' "$1"; }

step "the daemon, on 127.0.0.1:$port, which also puts what it routes on $group:7500"
start pmd "$bin/pmd" -listen "127.0.0.1:$port" --oska "$group:7500" --interface 127.0.0.1
await "the daemon" listens

start watch "$bin/pelmoscope" -i lo -u 2 -addrinfo
watcher=${started[-1]}
sleep 0.5
runs "$watcher" || watcher=

step "a listener on DEMO.>, and one that answers on DEMO.ASK"
start listener "${bus[@]}" listen 'DEMO.>' --seconds 60
await "the listener" says "listening on" listener.err
start answerer "${bus[@]}" answer DEMO.ASK answer=42
await "the answerer" says "listening on" answerer.err

step "200 messages, 50 a second"
"${bus[@]}" send DEMO.PRICE price:f64=12.5 --count 200 --rate 50 --sequence
head -n 3 "$work/listener.out"
echo "..."
await "the last message" says "seq=200" listener.out
tail -n 1 "$work/listener.out"

step "a request and its answer"
"${bus[@]}" request DEMO.ASK 'question=what is six times seven?'

if [ -z "$watcher" ]; then
    step "not watched: pelmoscope needs the right to capture (run this as root)"
    exit 0
fi
step "what pelmoscope saw beside them: the last table, of two seconds"
await "a report" grep -q "^DEMO\|DEMO\.PRICE" "$work/watch.out"
sleep 2.2
last_report "$work/watch.out"
