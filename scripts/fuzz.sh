#!/usr/bin/env bash
# Runs the fuzz targets, JOBS at a time and FUZZ_SECONDS each (60), or those that are named. New
# inputs stay in build/fuzz/corpus; what crashes a target is build/fuzz/TARGET-*.
#   fuzz.sh [TARGET...]
#   fuzz.sh minimise      makes fuzz/corpus the smallest set that reaches what all inputs reach
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/fuzz/bin
export ASAN_OPTIONS=quarantine_size_mb=4 UBSAN_OPTIONS=print_stacktrace=1

minimise() {
  local target=$1 smallest=build/fuzz/minimised/$1
  rm -rf "$smallest"
  mkdir -p "$smallest"
  "$bin/${target}_fuzz" -merge=1 -max_len=2048 "$smallest" "build/fuzz/corpus/$target" \
    "fuzz/corpus/$target" "build/fuzz/seeds/$target" 2>&1 | tail -n 1
  rm -rf "fuzz/corpus/$target"
  cp -r "$smallest" "fuzz/corpus/$target"
}

run() {
  local target=$1 log=build/fuzz/$1.log failed=0
  local TIMEFORMAT='%U %S'
  {
    time "$bin/${target}_fuzz" -max_total_time="${FUZZ_SECONDS:-60}" -max_len=4096 -timeout=60 \
      -rss_limit_mb=2048 -malloc_limit_mb=256 -dict=fuzz/orb.dict -print_final_stats=1 \
      -artifact_prefix="build/fuzz/$target-" "build/fuzz/corpus/$target" "fuzz/corpus/$target" \
      "build/fuzz/seeds/$target" >"$log" 2>&1 || failed=1
  } 2>"build/fuzz/$target.time"
  if [[ $failed -ne 0 ]]; then
    cat "$log"
    echo "fuzz: $target found something: build/fuzz/$target-*"
    return 1
  fi
  local cpu units reached
  cpu=$(awk '{ printf "%.0f", $1 + $2 }' "build/fuzz/$target.time")
  units=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+)/\1/p' "$log")
  reached=$(sed -nE 's/^#[0-9]+.*DONE *cov: ([0-9]+) ft: ([0-9]+) .*/\1 edges, \2 features/p' "$log")
  printf '%-12s %10d executions in %4d s of processor time; %s; nothing found\n' "$target" \
    "$units" "$cpu" "$reached"
}

if [[ ${1:-} == --run ]]; then  # one target, for the loop below
  run "$2"
  exit
fi

scripts/bootstrap.sh all
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
"$bin/fuzz_seeds" build/fuzz/seeds

action=run
if [[ ${1:-} == minimise ]]; then
  action=minimise
  shift
fi
targets=("$@")
[[ $# -gt 0 ]] || targets=(container sections text calls gguf safetensors)
for target in "${targets[@]}"; do
  mkdir -p "build/fuzz/corpus/$target" "fuzz/corpus/$target" "build/fuzz/seeds/$target"
done
if [[ $action == minimise ]]; then
  for target in "${targets[@]}"; do minimise "$target"; done
else
  printf '%s\n' "${targets[@]}" | xargs -P "${JOBS:-$(nproc)}" -n 1 scripts/fuzz.sh --run
fi
