#!/usr/bin/env bash
# Measures how many deliberate faults the unit tests catch (tools/mutate.py):
# 150 mutants of the product sources by default, built and tested one at a
# time in a private copy under /tmp/kelva-mutate. A developer tool; CI does
# not run it. Extra arguments go to tools/mutate.py (--count, --seed,
# --only engine/, --list, --report FILE).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
exec python3 tools/mutate.py --shared "${KELVA_SHARED_DIR:-$(pwd)/../shared}" "$@"
