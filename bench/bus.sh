#!/usr/bin/env bash
# bus.sh [OPTION ...]: messages through pmd and through two common brokers, side by side; --help has
# the options. It needs the release preset, and scripts/setup.sh --bench for the brokers.
set -euo pipefail
exec python3 "$(dirname "$0")/bus/run.py" "$@"
