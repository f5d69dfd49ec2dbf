#!/usr/bin/env bash
# Installs what is missing, builds kelva, renders the bundled demo tune to
# demo.wav, shows what kelva knows about it, and plays it when this machine
# has a sound device.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${KELVA_BUILD_DIR:-$root/build}

scripts/setup.sh
echo "== build ($build)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Only what the demo needs: the tool, the demo tune, the data tree and
# kelva's players (scripts/test.sh builds everything).
cmake --build "$build" -j "$(nproc)" --target kelva kelva_demo_tune kelva_build_data
if [ -d "$build/players" ]; then
  cmake --build "$build/players" -j "$(nproc)" || cmake --build "$build" -j "$(nproc)"
fi

kelva="$build/cli/kelva"
demo="$build/demo/demo.mod"
# The build tree's data tree: eagleplayer.conf and the players built from source.
export KELVA_DATA="$build/kelva_data"

if [ ! -f "$KELVA_DATA/players/PTK-Prowiz" ]; then
  echo "demo: $KELVA_DATA/players/PTK-Prowiz is missing: the ProTracker player was not built" >&2
  echo "demo: (it needs the m68k cross compiler, gcc-m68k-linux-gnu)" >&2
  exit 1
fi

echo "== render $demo -> demo.wav"
"$kelva" render "$demo" -o demo.wav
echo "== kelva info"
"$kelva" info "$demo"

echo "== play"
if ! "$kelva" play "$demo"; then
  echo "demo: no sound here; demo.wav holds the tune ($root/demo.wav)"
fi
