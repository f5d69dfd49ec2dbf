#!/usr/bin/env bash
# Installs what is missing, builds kelva, and shows what it can do.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
if [ -x build/cli/kelva ]; then
  export KELVA_DATA="$PWD/build/kelva_data"
  build/cli/kelva render build/demo/demo.mod -o demo.wav
  build/cli/kelva info build/demo/demo.mod
else
  echo "kelva engine $(build/tools/kelva-version 2>/dev/null || echo built)"
  echo "Playback is not there yet: the command-line tool and the demo tune follow."
fi
