#!/usr/bin/env bash
# How near is the tool to its floor? Runs "pelmoscope -r FILE" as in normal use, its reports thrown
# away, against the bare pcap_loop with the same filter on the same file, and against that loop with
# a checksum of each payload; in turn, round after round, so that a busy machine is busy for all.
#
# Time is user and system time of the whole process, start and reports included, the median of the
# rounds, divided by the packets. Memory is the peak resident size. Sizes of packets are bytes of
# UDP payload.
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=5
build=build/release
folder=build/bench
tool=
cases=()

usage() {
    cat <<'END'
usage: bench/throughput.sh [--rounds N] [--build FOLDER] [--captures FOLDER] [--tool PROGRAM] [CASE ...]
  --rounds N         runs of each program [5]
  --build FOLDER     where pelmoscope, pelmogen, pcap_floor, run_usage are, under bin [build/release]
  --captures FOLDER  where captures are kept, 3 GB; remade when their options change [build/bench]
  --tool PROGRAM     measured in place of pelmoscope, called as PROGRAM -r FILE
Cases, all by default:
  A       2 million packets of 300 bytes, 200 hosts, 1,000 subjects
  B       1 million packets of 1,200 bytes, the same hosts and subjects
  C       1 million packets of 200 bytes, 20,000 hosts, 200,000 subjects
  C0      C, no host with a SCid
  flat    peak memory of 0.2 and of 2 million packets, the same hosts and subjects
  record  peak memory by count of hosts and of subjects
END
}

while [ $# -gt 0 ]; do
    case $1 in
    --rounds) rounds=$2 && shift 2 ;;
    --build) build=$2 && shift 2 ;;
    --captures) folder=$2 && shift 2 ;;
    --tool) tool=$2 && shift 2 ;;
    --help) usage && exit 0 ;;
    A | B | C | C0 | flat | record) cases+=("$1") && shift ;;
    *) usage >&2 && exit 2 ;;
    esac
done
[ ${#cases[@]} -gt 0 ] || cases=(A B C C0 flat record)
: "${tool:=$build/bin/pelmoscope}"
for program in "$tool" "$build"/bin/{pelmogen,pcap_floor,run_usage}; do
    [ -x "$program" ] || { echo "$program is missing: build the release preset" >&2 && exit 1; }
done
mkdir -p "$folder"

# capture NAME OPTIONS...: makes the capture unless it's there from the same options, and brings it
# into the page cache. Sets `file`.
capture() {
    file=$folder/$1.pcap
    shift
    local made
    made="$* $(cksum <"$build/bin/pelmogen")"
    if [ ! -f "$file" ] || [ "$(cat "$file.options" 2>/dev/null)" != "$made" ]; then
        "$build/bin/pelmogen" --out "$file" --rate 100000 "$@"
        echo "$made" >"$file.options"
    fi
    cat "$file" >/dev/null
}

run() {
    "$build/bin/run_usage" "$@" || { echo "failed: $*" >&2 && return 1; }
}

median() {
    sort -n | awk '{ value[NR] = $1 }
        END { print (value[int((NR + 1) / 2)] + value[int((NR + 2) / 2)]) / 2 }'
}
calc() { awk "BEGIN { printf \"$1\", $2 }"; }

declare -A toolTime

# compare CASE PACKETS BAR AIM: the rounds on `file`, then a line of the table.
compare() {
    local name=$1 packets=$2 bar=$3 aim=$4 floor=$build/bin/pcap_floor scratch round
    scratch=$(mktemp -d)
    for ((round = 0; round < rounds; ++round)); do
        run "$tool" -r "$file" >>"$scratch/tool"
        run "$floor" "$file" >>"$scratch/bare"
        run "$floor" "$file" --checksum >>"$scratch/sum"
        run "$floor" "$file" --checksum-wide >>"$scratch/wide"
    done
    local leg
    local -A ns
    for leg in tool bare sum wide; do
        ns[$leg]=$(calc %.1f "$(median <"$scratch/$leg") * 1000 / $packets")
    done
    toolTime[$name]=${ns[tool]}
    local peak verdict=-
    peak=$(awk '{ print $2 }' "$scratch/tool" | median)
    rm -r "$scratch"
    local ratio
    ratio=$(calc %.2f "${ns[tool]} / ${ns[sum]}")
    [ "$bar" = - ] || verdict=$(calc %s "$ratio <= $bar ? \"within\" : \"over\"")
    printf '%-4s %8s %8s %8s %8s %8s %7s %5s %5s %-7s %8s %8s\n' "$name" "$packets" "${ns[tool]}" \
        "${ns[bare]}" "${ns[sum]}" "${ns[wide]}" "$ratio" "$bar" "$aim" "$verdict" \
        "$(calc %.2f "${ns[tool]} / ${ns[bare]}")" "$(calc %.1f "$peak / 1024")"
}

# peak_of OPTIONS...: sets `peak`, in kilobytes.
peak_of() {
    capture "$@"
    peak=$(run "$tool" -r "$file" | awk '{ print $2 }')
}

small=(--hosts 200 --subjects 1000)
large=(--hosts 20000 --subjects 200000)

flat() {
    local once
    peak_of flat-1 --count 200000 --rate 10000 --payload 200 "${small[@]}" && once=$peak
    peak_of flat-10 --count 2000000 --rate 10000 --payload 200 "${small[@]}"
    echo "memory of 200 hosts, 1,000 subjects: 0.2 million packets $once KB, 2 million $peak KB"
}

# What one more record costs at the peak, its share of the report's copy included.
record() {
    local few
    peak_of hosts-few --count 20000 --hosts 20000 --nulls 1 --round-robin && few=$peak
    peak_of hosts-many --count 220000 --hosts 220000 --nulls 1 --round-robin
    echo "memory per host: $(calc %.0f "($peak - $few) * 1024 / 200000") bytes" \
        "(20,000 hosts $few KB, 220,000 hosts $peak KB)"
    local few_subjects=(--hosts 100 --payload 200 --round-robin)
    peak_of subjects-few --count 20000 --subjects 20000 "${few_subjects[@]}" && few=$peak
    peak_of subjects-many --count 220000 --subjects 220000 "${few_subjects[@]}"
    echo "memory per subject with one sender: $(calc %.0f "($peak - $few) * 1024 / 200000") bytes" \
        "(20,000 subjects $few KB, 220,000 subjects $peak KB)"
}

echo "nanoseconds a packet, medians of $rounds rounds; the ratio is tool to loop with checksum"
printf '%-4s %8s %8s %8s %8s %8s %7s %5s %5s %-7s %8s %8s\n' case packets tool loop +sum +wide \
    ratio bar aim '' to-loop peak-MB
for name in "${cases[@]}"; do
    case $name in
    A) capture A --count 2000000 --payload 300 "${small[@]}" && compare A 2000000 2.0 1.5 ;;
    B) capture B --count 1000000 --payload 1200 "${small[@]}" && compare B 1000000 1.6 1.25 ;;
    C) capture C --count 1000000 --payload 200 "${large[@]}" && compare C 1000000 3.5 2.5 ;;
    C0) capture C0 --count 1000000 --payload 200 --scids 0 "${large[@]}" && compare C0 1000000 - - ;;
    *) "$name" ;;
    esac
done
if [ -n "${toolTime[C]:-}" ] && [ -n "${toolTime[C0]:-}" ]; then
    echo "C0 to C: $(calc %.2f "${toolTime[C0]} / ${toolTime[C]}") (bar 2)"
fi
