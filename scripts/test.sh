#!/usr/bin/env bash
# Installs what is missing, builds kelva and runs every test; then repeats
# the unit tests in an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${KELVA_JOBS:-$(nproc)}
shared=${KELVA_SHARED_DIR:-$root/../shared}

scripts/setup.sh

echo "== build (release, -Werror)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVA_WERROR=ON -DKELVA_SHARED_DIR="$shared" >/dev/null
cmake --build build -j "$jobs"
echo "== tests"
(cd build && ctest --output-on-failure -j "$jobs" -LE bench)

echo "== build (ASan+UBSan)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKELVA_SANITIZE=ON -DKELVA_WERROR=ON \
  -DKELVA_BUILD_PLUGIN=OFF -DKELVA_BUILD_BENCH=OFF -DKELVA_SHARED_DIR="$shared" >/dev/null
cmake --build build-asan -j "$jobs" --target kelva_tests kelva_fuzzers   # fuzzers: corpus replays
echo "== unit tests and fuzz corpus replays under ASan+UBSan"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j "$jobs" -L unit)
