#!/bin/sh
# Makes the sample captures anew: make.sh PELMOGEN [FOLDER], this folder by default. The same
# generator gives the same bytes; a test holds it to that.
set -eu

if [ $# -lt 1 ]; then
    echo "usage: make.sh PELMOGEN [FOLDER]" >&2
    exit 2
fi
pelmogen=$1
folder=${2:-$(dirname "$0")}

# Twelve seconds of a small bus with all that happens on one.
"$pelmogen" --out "$folder/bus.pcap" --seed 11 --count 540 --rate 45 \
    --hosts 15 --nets 2 --ports 3 --subjects 30 --publishers 2 --scids 0.8 \
    --payload 90-200 --messages 1-2 --fields 1-4 \
    --nulls 0.12 --rreqs 0.04 --rrejs 0.02 \
    --ptp-data 0.05 --ptp-ackmes 0.02 --ptp-acks 0.03 --ptp-naks 0.01 --non-bus 0.03 \
    --repeats 0.05 --gaps 0.04 --restarts 0.005 --fragments 0.03 \
    --host-status 0.05 --replies 0.1 --no-subject 0.02 --damaged 0.02 --cut 0.01

# Each fault several times, and packets that the capture cut.
"$pelmogen" --out "$folder/faults.pcap" --seed 12 --count 500 --rate 100 \
    --hosts 6 --subjects 12 --scids 0.5 --payload 80-150 --fields 0-3 --messages 1-2 \
    --nulls 0.1 --rreqs 0.1 --rrejs 0.05 \
    --ptp-data 0.1 --ptp-ackmes 0.05 --ptp-acks 0.05 --ptp-naks 0.05 \
    --fragments 0.1 --damaged 0.6 --cut 0.15 --cut-to 10-140

# Written by a machine of the other byte order, in nanoseconds.
"$pelmogen" --out "$folder/swapped-nano.pcap" --seed 13 --count 200 --rate 30 \
    --start 1700000000.123456789 --big-endian --nano \
    --hosts 5 --subjects 10 --payload 100-200 --nulls 0.2 --gaps 0.1

# Status messages of eight hosts with fields of all types.
"$pelmogen" --out "$folder/hoststatus.pcap" --seed 14 --count 120 --rate 6 \
    --hosts 8 --ports 2 --subjects 8 --payload 400-900 --fields 8-20 --host-status 0.7
