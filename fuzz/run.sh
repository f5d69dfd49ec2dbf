#!/usr/bin/env bash
# Runs every libFuzzer target of a build (or the ones named) for a fixed time
# each from the committed corpus (README.md, "Running"); any finding fails it
# after the other targets have run; exits 77 when the build holds no libFuzzer
# programs.  Usage: fuzz/run.sh BUILD_DIR SECONDS_PER_TARGET [WORK_DIR] [TARGET...]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: run.sh BUILD_DIR SECONDS [WORK_DIR] [TARGET...]}
seconds=${2:?usage: run.sh BUILD_DIR SECONDS [WORK_DIR] [TARGET...]}
work=${3:-$build/fuzz-work}
shift $(( $# < 3 ? $# : 3 ))
targets=("$@")
[ $# -eq 0 ] && targets=(hunk classify identify epconf songdb engine)
modules=${KELVA_SHARED_DIR:-$here/../../shared}/testdata/modules

mkdir -p "$work/artifacts"
failed=()
for t in "${targets[@]}"; do
  bin=$build/fuzz/kelva_fuzz_$t
  if ! [ -x "$bin" ] || ! grep -q libFuzzer <<< "$("$bin" -help=1 2>&1)"; then
    echo "fuzz: $bin is not a libFuzzer program (configure with clang and -DKELVA_LIBFUZZER=ON); skipped"
    exit 77
  fi
  mkdir -p "$work/$t"
  extra=()
  [ "$t" = classify ] && [ -d "$modules" ] && extra=("$modules"/{debian,st15,variants,effects})
  timeout=10
  [ "$t" = engine ] && timeout=120
  echo "== fuzz $t for ${seconds}s${KELVA_FUZZ_RUNS:+ or $KELVA_FUZZ_RUNS executions}"
  "$bin" -max_total_time="$seconds" ${KELVA_FUZZ_RUNS:+-runs="$KELVA_FUZZ_RUNS"} -timeout="$timeout" \
    -rss_limit_mb=2048 -close_fd_mask=3 -dict="$here/kelva.dict" -artifact_prefix="$work/artifacts/$t-" \
    -print_final_stats=1 "$work/$t" "$here/corpus/$t" "${extra[@]}" > "$work/$t.log" 2>&1
  rc=$?
  grep -E '^#[0-9]+\s+(INITED|DONE)|^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$work/$t.log"
  if [ $rc -ne 0 ]; then
    echo "fuzz $t: FINDING (exit $rc); log $work/$t.log; reproducer in $work/artifacts/"
    grep -m20 -E 'ERROR|SUMMARY|fuzz check failed|Test unit written' "$work/$t.log"
    failed+=("$t")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in ${failed[*]}"
  exit 1
fi
echo "fuzz: no findings"
