#!/usr/bin/env bash
# Runs every fuzzer, or those that are named, from its seeds, four a processor, and prints what each did; fails when one
# found something.
#
# usage: tests/fuzz/run.sh [--seconds N] [--build DIR] [--corpus DIR] [FUZZER...]
#   --seconds N   how long each fuzzer runs; 30 by default
#   --build DIR   where the preset asan was built; build/asan by default
#   --corpus DIR  keeps new inputs in DIR/FUZZER, to go on from; without it they are dropped
#
# The seeds stay as they are. The input and the report of a finding are kept in findings, in the folder of the build.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
seconds=30
build=$here/../../build/asan
corpus=

usage() {
  sed -n '5,8s/^# \{0,1\}//p' "$0" >&2
  exit 64
}

while [[ "${1:-}" == --* ]]; do
  case "$1" in
    --seconds) seconds=${2:-} ;;
    --build) build=${2:-} ;;
    --corpus) corpus=${2:?a folder} ;;
    *) usage ;;
  esac
  shift 2 || usage
done
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || usage
build=$(cd "$build" && pwd)

# In memory where there is room: every input writes files.
scratch=$(mktemp -d -p "$([ -w /dev/shm ] && printf /dev/shm || printf '%s' "${TMPDIR:-/tmp}")" orbamira-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
corpus=${corpus:-$scratch/corpus}
findings=$build/findings
mkdir -p "$findings"

run_one() {
  local target=$1 log=$scratch/$1.log status=0 dictionary=() limit=10
  [ "$target" != flow ] || limit=60 # one input is a whole flow
  mkdir -p "$corpus/$target" "$scratch/$target/tmp"
  if [ -e "$here/$target.dict" ]; then
    dictionary=("-dict=$here/$target.dict")
  elif compgen -G "$here/corpus/$target/*.json" > /dev/null; then
    dictionary=("-dict=$here/json.dict")
  fi
  # The sanitizer keeps the callers of every allocation for ever. The system's libraries have no frame pointers, so that
  # it sees ever new ones beyond the third: two gigabytes of them after three million tokens.
  ASAN_OPTIONS=malloc_context_size=3 TMPDIR=$scratch/$target/tmp "$build/tests/fuzz/fuzz_$target" \
    "${dictionary[@]}" -max_total_time="$seconds" -timeout="$limit" -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings/$target-" "$corpus/$target" "$here/corpus/$target" > "$log" 2>&1 || status=$?
  if [ "$status" != 0 ]; then
    cp "$log" "$findings/$target.log"
  fi
  printf '%s\n' "$status" > "$scratch/$target.status"
}

stat_of() { sed -nE "s/^stat::$1: +([0-9]+)$/\1/p" "$2" | tail -n 1; }
coverage_of() { sed -nE "s/^#[0-9]+\s+$1\s+cov: ([0-9]+) .*$/\1/p" "$2" | tail -n 1; }

targets=("$@")
[ $# -gt 0 ] || mapfile -t targets < <(cd "$here/corpus" && printf '%s\n' *)
for target in "${targets[@]}"; do
  if [ "$(jobs -rp | wc -l)" -ge "$((4 * $(nproc)))" ]; then
    wait -n
  fi
  run_one "$target" &
done
wait

failed=0
printf '%-20s %12s %8s %8s  %s\n' target executions per_sec new_cov result
for target in "${targets[@]}"; do
  log=$scratch/$target.log
  result=ok
  if [ "$(cat "$scratch/$target.status")" != 0 ]; then
    result="FAILED, see $findings/$target.log"
    failed=$((failed + 1))
  fi
  first=$(coverage_of INITED "$log")
  last=$(coverage_of DONE "$log")
  printf '%-20s %12s %8s %8s  %s\n' "$target" "$(stat_of number_of_executed_units "$log")" \
    "$(stat_of average_exec_per_sec "$log")" "$((${last:-${first:-0}} - ${first:-0}))" "$result"
done
[ "$failed" = 0 ]
