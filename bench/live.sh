#!/usr/bin/env bash
# Measures the cost of live traffic and the rate at which packets are lost. Runs "pelmoscope -i" and
# the bare pcap_loop on one end of a veth pair while the generator sends on the other, both ends in
# a network namespace that ends with this script. Needs root.
#
# Time is user and system time of all threads while packets come, divided by the packets; the
# kernel's work to deliver them falls to the sender. Loss is the kernel's count for the capture
# socket, and the difference between what was sent and what was counted.
set -euo pipefail
if [ -z "${PELMO_LIVE_NAMESPACE:-}" ]; then
    PELMO_LIVE_NAMESPACE=1 exec unshare --net "$0" "$@"
fi
cd "$(dirname "$0")/.."

seconds=10
rounds=3
build=build/release
tool=
cases=()

usage() {
    cat <<'END'
usage: bench/live.sh [--seconds N] [--rounds N] [--build FOLDER] [--tool PROGRAM] [CASE ...]
  --seconds N     length of a run [10]
  --rounds N      runs of each rate and program in "cpu" [3]
  --build FOLDER  where pelmoscope, pelmogen and pcap_floor are, under bin [build/release]
  --tool PROGRAM  measured in place of pelmoscope, called as PROGRAM -i INTERFACE -u 1
Cases, all by default:
  cpu      10,000, 100,000 and 200,000 packets a second of 300 bytes, 200 hosts, 1,000 subjects
  load     150,000 a second: what the kernel drops, what is counted
  ceiling  the highest rate without loss, in steps of 50,000
  buffer   150,000 a second and a listener that stands still for 100 ms: the tool, and the bare loop
           with libpcap's own buffer and with larger ones
END
}

while [ $# -gt 0 ]; do
    case $1 in
    --seconds) seconds=$2 && shift 2 ;;
    --rounds) rounds=$2 && shift 2 ;;
    --build) build=$2 && shift 2 ;;
    --tool) tool=$2 && shift 2 ;;
    --help) usage && exit 0 ;;
    cpu | load | ceiling | buffer) cases+=("$1") && shift ;;
    *) usage >&2 && exit 2 ;;
    esac
done
[ ${#cases[@]} -gt 0 ] || cases=(cpu load ceiling buffer)
: "${tool:=$build/bin/pelmoscope}"
for program in "$tool" "$build"/bin/{pelmogen,pcap_floor}; do
    [ -x "$program" ] || { echo "$program is missing: build the release preset" >&2 && exit 1; }
done

scratch=$(mktemp -d)
listener=
end_all() {
    [ -z "$listener" ] || kill -KILL "$listener" 2>/dev/null || true
    rm -rf "$scratch"
}
trap end_all EXIT

ip link set lo up
ip link add sender type veth peer name listener
ip link set sender up
ip link set listener up

calc() { awk "BEGIN { printf \"$1\", $2 }"; }
median() { sort -n | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }

# until_true COMMAND...: waits up to 20 seconds until the command succeeds.
until_true() {
    local tries
    for ((tries = 0; tries < 1000; ++tries)); do
        ! "$@" || return 0
        sleep 0.02
    done
    echo "waited in vain for: $*" >&2
    exit 1
}

# CPU time of all threads of the listener, in nanoseconds.
cpu_time() { cat "/proc/$listener"/task/*/schedstat | awk '{ sum += $1 } END { print sum }'; }

# The packets that the tool's reports counted: the first totals of each are those of multicast data.
counted_by_tool() {
    awk '/^Snapshot/ { first = 1 } /^ +Totals/ && first { sum += $2 + $5; first = 0 }
        END { print sum + 0 }' "$scratch/out"
}

# listen PROGRAM ARGUMENTS...: starts it and waits until it listens.
listen() {
    local sign="$1"
    shift
    : >"$scratch/out"
    : >"$scratch/err"
    "$@" >"$scratch/out" 2>"$scratch/err" &
    listener=$!
    until_true grep -q "$sign" "$scratch/out" "$scratch/err"
}

# Seconds for which the listener is stopped in a run.
pause=0
stand_still() {
    sleep 1
    kill -STOP "$listener"
    sleep "$pause"
    kill -CONT "$listener"
}

# run LEG RATE [ARGUMENT ...]: one run; sets sent, took, ns, dropped, counted.
run() {
    local leg=$1 rate=$2 before after count pauser=
    shift 2
    count=$((rate * seconds))
    case $leg in
    tool) listen '^Snapshot' "$tool" -i listener -u 1 ;;
    *) listen '^listening' "$build/bin/pcap_floor" --live listener "$@" ;;
    esac
    before=$(cpu_time)
    if [ "$pause" != 0 ]; then
        stand_still &
        pauser=$!
    fi
    "$build/bin/pelmogen" --interface sender --rate "$rate" --count "$count" --payload 300 \
        --hosts 200 --subjects 1000 >"$scratch/sent"
    [ -z "$pauser" ] || wait "$pauser"
    # libpcap delivers what it has after a second, and the next report shows it.
    sleep 2.2
    after=$(cpu_time)
    read -r _ dropped < <(python3 bench/socket_drops.py "$listener")
    kill -TERM "$listener"
    wait "$listener" || true
    listener=
    sent=$(awk '$2 == "data" { print $3 }' "$scratch/sent")
    took=$(awk '$2 == "seconds" { print $3 }' "$scratch/sent")
    case $leg in
    tool) counted=$(counted_by_tool) ;;
    *) counted=$(awk '/packets,/ { print $1 }' "$scratch/out") ;;
    esac
    ns=$(calc %.0f "($after - $before) / ($counted > 0 ? $counted : 1)")
}

# tell LEG RATE: prints a line about the last run.
tell() {
    printf '%-14s %8s %9s %9s %8s %8s %6s %6s\n' "$1" "$2" "$sent" "$counted" "$dropped" \
        "$((sent - counted))" "$ns" "$(calc %.0f "$sent / $took / 1000")k"
}

heading() {
    printf '\n%s\n%-14s %8s %9s %9s %8s %8s %6s %6s\n' "$1" program rate sent counted dropped \
        missing ns/pkt came
}

cpu() {
    local rate leg round
    heading "CPU time a packet: $rounds runs of $seconds seconds, the one of median time"
    for rate in 10000 100000 200000; do
        for ((round = 0; round < rounds; ++round)); do
            for leg in tool loop +sum; do
                case $leg in
                +sum) run loop "$rate" --checksum ;;
                *) run "$leg" "$rate" ;;
                esac
                echo "$ns $(tell "$leg" "$rate")" >>"$scratch/cpu-$rate-$leg"
            done
        done
        for leg in tool loop +sum; do
            sort -n "$scratch/cpu-$rate-$leg" | sed -n "$(((rounds + 1) / 2))p" | cut -d' ' -f2-
        done
    done
}

load() {
    heading "150,000 a second, a report each second"
    run tool 150000
    tell tool 150000
    run loop 150000
    tell loop 150000
}

ceiling() {
    local leg rate
    heading "The highest rate without loss"
    for leg in tool loop; do
        for ((rate = 150000; rate <= 700000; rate += 50000)); do
            run "$leg" "$rate"
            tell "$leg" "$rate"
            [ "$dropped" = 0 ] && [ "$counted" = "$sent" ] || break
            # The sender can't go faster.
            [ "$(calc %d "$sent / $took < 0.97 * $rate")" = 0 ] || break
        done
    done
}

buffer() {
    local kilobytes
    heading "150,000 a second, a listener that stands still for 100 ms"
    pause=0.1
    run tool 150000
    tell tool 150000
    run loop 150000
    tell loop 150000
    for kilobytes in 8192 32768; do
        run loop 150000 --buffer "$kilobytes"
        tell "loop, $((kilobytes / 1024)) MB" 150000
    done
    pause=0
}

for name in "${cases[@]}"; do
    "$name"
done
