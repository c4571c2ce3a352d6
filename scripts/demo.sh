#!/usr/bin/env bash
# Installs what is missing, builds the tool and reads a small capture of a bus with it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target pelmoscope -- --quiet

exec build/release/bin/pelmoscope -r samples/bus.pcap -addrinfo -ptp -u 5
