#!/usr/bin/env bash
# Compares the tool's time with a floor. Runs "pelmoscope -r FILE" as in normal use, its reports
# discarded, in pairs with a bare pcap_loop that has the same filter on the same file and sums each
# payload once. The traffic is the mix of a real bus (pelmogen --mix).
#
# Time is user and system time of the whole process, start and reports included, divided by the
# packets; the ratio is the median of the pairs' ratios. A first pair brings file and programs into
# memory and doesn't count. Memory is the peak resident size.
set -euo pipefail
cd "$(dirname "$0")/.."

pairs=7
build=build/release
folder=build/bench
tool=
cases=()

usage() {
    cat <<'END'
usage: bench/throughput.sh [--pairs N] [--build FOLDER] [--captures FOLDER] [--tool COMMAND] [CASE ...]
  --pairs N          runs of tool and floor that count [7]
  --build FOLDER     where pelmoscope, pelmogen, pcap_floor, run_usage are, under bin [build/release]
  --captures FOLDER  where captures are kept, 3 GB; remade when their options change [build/bench]
  --tool COMMAND     measured in place of pelmoscope, called as COMMAND -r FILE; may have words of
                     its own, as in "build/release/bin/pelmowatch json"
Cases, all by default:
  A       2 million packets of about 300 bytes, 200 hosts, 1,000 subjects
  B       1 million packets of about 1,200 bytes, the same hosts and subjects
  C       1 million packets of about 200 bytes, 20,000 hosts, 200,000 subjects, 860,000 pairs of
          subject and sender
  flat    peak memory of 0.2 and of 2 million packets, the same hosts and subjects
  record  what a host, a subject and a pair add to the peak
END
}

while [ $# -gt 0 ]; do
    case $1 in
    --pairs) pairs=$2 && shift 2 ;;
    --build) build=$2 && shift 2 ;;
    --captures) folder=$2 && shift 2 ;;
    --tool) tool=$2 && shift 2 ;;
    --help) usage && exit 0 ;;
    A | B | C | flat | record) cases+=("$1") && shift ;;
    *) usage >&2 && exit 2 ;;
    esac
done
[ ${#cases[@]} -gt 0 ] || cases=(A B C flat record)
: "${tool:=$build/bin/pelmoscope}"
read -ra command <<<"$tool"
for program in "${command[0]}" "$build"/bin/{pelmogen,pcap_floor,run_usage}; do
    [ -x "$program" ] || { echo "$program is missing: build the release preset" >&2 && exit 1; }
done
mkdir -p "$folder"

. bench/captures.sh

# "microseconds peak-kilobytes"
run() {
    "$build/bin/run_usage" "$@" || { echo "failed: $*" >&2 && return 1; }
}

median() {
    sort -n | awk '{ value[NR] = $1 }
        END { print (value[int((NR + 1) / 2)] + value[int((NR + 2) / 2)]) / 2 }'
}
calc() { awk "BEGIN { printf \"$1\", $2 }"; }

row='%-4s %8s %8s %8s %7s %5s %5s %-7s %8s\n'

# compare CASE PACKETS BAR AIM: the pairs on `file`, then a line of the table.
compare() {
    local name=$1 packets=$2 bar=$3 aim=$4 results pair toolRun floorRun
    results=$(mktemp)
    for ((pair = 0; pair <= pairs; ++pair)); do
        toolRun=$(run "${command[@]}" -r "$file")
        floorRun=$(run "$build/bin/pcap_floor" "$file" --checksum)
        [ "$pair" = 0 ] || echo "$toolRun $floorRun" >>"$results"
    done
    local toolNs floorNs ratio peak
    toolNs=$(awk "{ print \$1 * 1000 / $packets }" "$results" | median)
    floorNs=$(awk "{ print \$3 * 1000 / $packets }" "$results" | median)
    ratio=$(awk '{ print $1 / $3 }' "$results" | median)
    peak=$(awk '{ print $2 / 1024 }' "$results" | median)
    local steady
    steady=$(awk 'NR == 1 || $3 < least { least = $3 } $3 > most { most = $3 }
        END { print (most <= least * 4 / 3) }' "$results")
    rm "$results"
    # shellcheck disable=SC2059
    printf "$row" "$name" "$packets" "$(calc %.0f "$toolNs")" "$(calc %.0f "$floorNs")" \
        "$([ "$steady" = 1 ] && calc %.2f "$ratio" || echo -)" "$bar" "$aim" \
        "$([ "$steady" = 1 ] && calc %s "$ratio <= $bar ? \"within\" : \"over\"" || echo "?")" \
        "$(calc %.1f "$peak")"
    [ "$steady" = 1 ] || echo "     the floor moved by more than a third: the machine changed"
}

# peak_of ARGUMENTS -- NAME OPTIONS...: measures the peak memory of the tool with these arguments.
# Sets `peak`, in kilobytes.
peak_of() {
    local arguments=()
    while [ "$1" != -- ]; do arguments+=("$1") && shift; done
    shift
    capture "$@"
    peak=$(run "${command[@]}" -r "$file" "${arguments[@]}" | awk '{ print $2 }')
}

flat() {
    local once options=(--rate 10000 --mix)
    peak_of -- flat-1 "${options[@]}" --count 200000 && once=$peak
    peak_of -- flat-10 "${options[@]}" --count 2000000
    echo "memory of 200 hosts, 1,000 subjects: 0.2 million packets $once KB, 2 million $peak KB"
}

# added WHAT ARGUMENTS -- NAME OPTIONS... -- MORE...: the memory that each of 200,000 more WHAT
# takes, from a capture with 20,000 of them and one to which the MORE options give 220,000.
added() {
    local what=$1 few common=()
    shift
    while [ "$1" != -- ]; do common+=("$1") && shift; done
    shift
    local name=$1 options=()
    shift
    while [ "$1" != -- ]; do options+=("$1") && shift; done
    shift
    peak_of "${common[@]}" -- "$name-few" "${options[@]}" && few=$peak
    peak_of "${common[@]}" -- "$name-many" "${options[@]}" "$@"
    echo "memory per $what: $(calc %.0f "($peak - $few) * 1024 / 200000") bytes" \
        "(20,000: $few KB, 220,000: $peak KB)"
}

# The figures include the copy for a report.
record() {
    local subjects=(--hosts 100 --payload 200 --round-robin --count 20000 --subjects 20000)
    local pairs=(--hosts 100 --subjects 20000 --messages 8 --message-bytes 70 --payload 1400
        --round-robin --count 200000)
    added host -- hosts --count 20000 --hosts 20000 --nulls 1 --round-robin -- \
        --count 220000 --hosts 220000
    added "subject with one sender" -- subjects "${subjects[@]}" -- --count 220000 --subjects 220000
    added "subject with one sender, senders counted" -addrinfo -- subjects "${subjects[@]}" -- \
        --count 220000 --subjects 220000
    added "further sender of a subject, senders counted" -addrinfo -- pairs "${pairs[@]}" -- \
        --publishers 11
}

echo "$(nproc) cores, load $(cut -d' ' -f1,3 /proc/loadavg) (1 and 15 minutes)"
echo "nanoseconds a packet, medians of $pairs pairs"
# shellcheck disable=SC2059
printf "$row" case packets tool floor ratio bar aim '' peak-MB
for name in "${cases[@]}"; do
    case $name in
    A) capture_case A && compare A 2000000 1.75 1.5 ;;
    B) capture_case B && compare B 1000000 1.7 1.4 ;;
    C) capture_case C && compare C 1000000 4.5 3.5 ;;
    *) "$name" ;;
    esac
done
