#!/usr/bin/env bash
# Installs what is missing, builds the tool and reads a small capture of a bus with it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/build_programs.sh pelmoscope

exec build/release/bin/pelmoscope -r samples/bus.pcap -addrinfo -ptp -u 5
