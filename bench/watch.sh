#!/usr/bin/env bash
# Compares pelmowatch with the tool. "read": both read the captures of bench/throughput.sh, all output
# discarded; time is user and system time, and ratios are medians of pairs. "live": the tool with a
# report a second, then "serve" with an interval of a second, metrics of all subjects and hosts, open
# pages and a scrape each second, on one end of a veth pair in a namespace that ends with this script.
# Needs root for that.
set -euo pipefail
cd "$(dirname "$0")/.."

pairs=5
seconds=20
rate=100000
pages=20
build=build/release
folder=build/bench
cases=()

usage() {
    cat <<'END'
usage: bench/watch.sh [--pairs N] [--seconds N] [--rate N] [--pages N] [--build FOLDER] [--captures FOLDER] [CASE ...]
  --pairs N          pairs of runs that count in "read" [5]
  --seconds N        length of a run in "live" [20]
  --rate N           packets a second in "live" [100000]
  --pages N          open pages in "live" [20]
  --build FOLDER     where the programs are, under bin [build/release]
  --captures FOLDER  where captures are kept [build/bench]
Cases, both by default:
  read     json and serve on the captures A, B and C: their time by the tool's; messages: by json's
  live     what is lost, and the part of a core that each takes
END
}

arguments=("$@")
while [ $# -gt 0 ]; do
    case $1 in
    --pairs) pairs=$2 && shift 2 ;;
    --seconds) seconds=$2 && shift 2 ;;
    --rate) rate=$2 && shift 2 ;;
    --pages) pages=$2 && shift 2 ;;
    --build) build=$2 && shift 2 ;;
    --captures) folder=$2 && shift 2 ;;
    --help) usage && exit 0 ;;
    read | live) cases+=("$1") && shift ;;
    *) usage >&2 && exit 2 ;;
    esac
done
[ ${#cases[@]} -gt 0 ] || cases=(read live)
if [[ " ${cases[*]} " == *" live "* ]] && [ -z "${PELMO_WATCH_NAMESPACE:-}" ]; then
    PELMO_WATCH_NAMESPACE=1 exec unshare --net "$0" "${arguments[@]}"
fi
for program in "$build"/bin/{pelmoscope,pelmowatch,pelmogen,run_usage}; do
    [ -x "$program" ] || { echo "$program is missing: build the release preset" >&2 && exit 1; }
done
mkdir -p "$folder"
ip link set lo up 2>/dev/null || true
. bench/captures.sh

scratch=$(mktemp -d)
: >"$scratch/log" >"$scratch/out"
program=
clients=
end_all() {
    for process in $program $clients; do
        kill -KILL "$process" 2>/dev/null || true
    done
    rm -rf "$scratch"
}
trap end_all EXIT

calc() { awk "BEGIN { printf \"$1\", $2 }"; }
median() { sort -n | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }

# until_true COMMAND...: waits up to two minutes until the command succeeds.
until_true() {
    local tries
    for ((tries = 0; tries < 2400; ++tries)); do
        ! "$@" || return 0
        sleep 0.05
    done
    echo "waited in vain for: $*" >&2
    exit 1
}

# CPU time of all threads of the program, in microseconds.
cpu_time() { cat "/proc/$program"/task/*/schedstat | awk '{ sum += $1 } END { printf "%d", sum / 1000 }'; }

# serve ARGUMENTS...: starts it; sets port.
serve() {
    : >"$scratch/log"
    "$build/bin/pelmowatch" serve --listen 127.0.0.1:0 "$@" >/dev/null 2>"$scratch/log" &
    program=$!
    until_true grep -q listening "$scratch/log"
    port=$(sed -n 's#.*http://127.0.0.1:\([0-9]*\)/.*#\1#p' "$scratch/log")
}

get() { python3 -c 'import sys, urllib.request
sys.stdout.buffer.write(urllib.request.urlopen("http://127.0.0.1:%s%s" % tuple(sys.argv[1:])).read())' "$port" "$1"; }
has_read() { get /healthz | grep -q '"read"'; }

stop() {
    kill -TERM "$program"
    wait "$program" || true
    program=
}

# time_of PROGRAM: microseconds to read `file`.
time_of() {
    case $1 in
    tool) "$build/bin/run_usage" "$build/bin/pelmoscope" -r "$file" | awk '{ print $1 }' ;;
    json | messages) "$build/bin/run_usage" "$build/bin/pelmowatch" "$1" -r "$file" | awk '{ print $1 }' ;;
    serve)
        serve -r "$file"
        until_true has_read
        cpu_time
        stop
        ;;
    esac
}

read_case() {
    local name leg pair once results=$scratch/times
    printf '%-4s %10s %8s %8s %8s\n' case 'tool (ms)' json serve messages
    for name in A B C; do
        capture_case "$name"
        : >"$results"
        for ((pair = 0; pair <= pairs; ++pair)); do
            once=
            for leg in tool json serve messages; do
                # In this shell, so that what it starts is its own.
                time_of "$leg" >"$scratch/once"
                once+="$(cat "$scratch/once") "
            done
            [ "$pair" = 0 ] || echo "$once" >>"$results"
        done
        printf '%-4s %10.0f %8.2f %8.2f %8.2f\n' "$name" "$(awk '{ print $1 / 1000 }' "$results" | median)" \
            "$(awk '{ print $2 / $1 }' "$results" | median)" "$(awk '{ print $3 / $1 }' "$results" | median)" \
            "$(awk '{ print $4 / $2 }' "$results" | median)"
    done
}

# The part of a core, in percent, that the program takes while packets come. Sets `sent`, `part`.
load() {
    local before after begin
    sleep 1
    begin=$(date +%s%N)
    before=$(cpu_time)
    "$build/bin/pelmogen" --interface sender --rate "$rate" --count $((rate * seconds)) --payload 300 \
        --hosts 200 --subjects 1000 >"$scratch/sent"
    sleep 2.2
    after=$(cpu_time)
    part=$(calc %.1f "($after - $before) / 1e4 / (($(date +%s%N) - $begin) / 1e9)")
    sent=$(awk '$2 == "data" { print $3 }' "$scratch/sent")
}

row='%-34s %8s %9s %9s %8s %6s\n'

live_tool() {
    "$build/bin/pelmoscope" -i listener -u 1 >"$scratch/out" 2>&1 &
    program=$!
    until_true grep -q ^Snapshot "$scratch/out"
    load
    tool_part=$part
    local dropped counted
    read -r _ dropped < <(python3 bench/socket_drops.py "$program")
    stop
    counted=$(awk '/^Snapshot/ { first = 1 } /^ +Totals/ && first { sum += $2 + $5; first = 0 }
        END { print sum + 0 }' "$scratch/out")
    # shellcheck disable=SC2059
    printf "$row" "pelmoscope" "$rate" "$sent" "$counted" "$dropped" "$part"
}

# live_serve PAGES: with no page there is no scrape either.
live_serve() {
    serve -i listener -u 1 --hosts --subjects '>'
    if [ "$1" != 0 ]; then
        python3 bench/watch_clients.py "$port" "$1" $((seconds + 2)) >"$scratch/clients" &
        clients=$!
    fi
    load
    [ -z "$clients" ] || wait "$clients"
    clients=
    get /metrics >"$scratch/metrics"
    stop
    # shellcheck disable=SC2059
    printf "$row" "serve, $1 pages" "$rate" "$sent" \
        "$(awk '/^pelmo_multicast_data_packets_total/ { sum += $2 } END { printf "%d", sum }' "$scratch/metrics")" \
        "$(awk '/^pelmo_kernel_dropped_frames_total/ { print $2 }' "$scratch/metrics")" "$part"
    echo "  $(calc %+.1f "$part - $tool_part") % of a core beyond the tool's"
    [ "$1" = 0 ] || awk '{ print "  each page got " $1 " events or more; " $2 " scrapes of " $3 \
        " bytes, the longest took " $4 " ms" }' "$scratch/clients"
}

live_case() {
    ip link add sender type veth peer name listener
    ip link set sender up
    ip link set listener up
    # shellcheck disable=SC2059
    printf "$row" program rate sent counted dropped 'core %'
    live_tool
    live_serve 0
    live_serve "$pages"
}

for name in "${cases[@]}"; do
    "${name}_case"
done
