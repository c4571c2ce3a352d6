#!/usr/bin/env bash
# pictures.sh [FOLDER]: makes the README's pictures again: docs/pictures/page.png of the live page, from
# a quarter of an hour of a made-up bus, and docs/pictures/top.svg of the screen, from a sample capture.
# scripts/setup.sh and a release build come first.
set -euo pipefail
cd "$(dirname "$0")/.."

folder=${1:-docs/pictures}
bin=build/release/bin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Pauses here and there give the lines their shape; the last interval is a whole one but for a moment.
pauses=()
for packet in 4 9 14 21 30 33 36 52 60 66 71 80; do
    pauses+=(--jump "$((packet * 1000)):$((packet * 7 % 9 + 2))")
done
"$bin/pelmogen" --out "$work/bus.pcap" --mix --seed 3 --count 96560 --rate 110 --gaps 0.0006 \
    --repeats 0.0004 --rreqs 0.0006 --rrejs 0.00004 --damaged 0.00003 "${pauses[@]}"

mkdir -p "$folder"
PELMO_WATCH=$bin/pelmowatch node tests/web/page_picture.mjs "$work/bus.pcap" "$folder/page.png"
scripts/top_picture.py "$bin/pelmowatch" "$folder/top.svg"
