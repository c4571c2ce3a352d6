#!/usr/bin/env bash
# direct.sh [OPTION ...]: messages from process to process without a broker, over reliable endpoints
# and over two common libraries, side by side; --help has the options. It needs the release
# preset, and scripts/setup.sh --bench for the libraries.
set -euo pipefail
exec python3 "$(dirname "$0")/direct/run.py" "$@"
