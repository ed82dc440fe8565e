#!/usr/bin/env bash
# Runs the fuzz targets, FUZZ_SECONDS each (60), or those that are named. New inputs stay in
# build/fuzz/corpus; what crashes a target is build/fuzz/TARGET-*.
#   fuzz.sh [TARGET...]
#   fuzz.sh minimise      makes fuzz/corpus the smallest set that reaches what all inputs reach
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh all
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
bin=build/fuzz/bin
"$bin/fuzz_seeds" build/fuzz/seeds
export ASAN_OPTIONS=quarantine_size_mb=4 UBSAN_OPTIONS=print_stacktrace=1

minimise=false
if [[ ${1:-} == minimise ]]; then
  minimise=true
  shift
fi
targets=("$@")
[[ $# -gt 0 ]] || targets=(container sections text calls gguf safetensors)
for target in "${targets[@]}"; do
  found=build/fuzz/corpus/$target
  mkdir -p "$found" "fuzz/corpus/$target" "build/fuzz/seeds/$target"
  if $minimise; then
    smallest=build/fuzz/minimised/$target
    rm -rf "$smallest"
    mkdir -p "$smallest"
    "$bin/${target}_fuzz" -merge=1 -max_len=2048 "$smallest" "$found" "fuzz/corpus/$target" \
      "build/fuzz/seeds/$target" 2>&1 | tail -n 1
    rm -rf "fuzz/corpus/$target"
    cp -r "$smallest" "fuzz/corpus/$target"
    continue
  fi
  echo "== $target"
  log=build/fuzz/$target.log
  "$bin/${target}_fuzz" -max_total_time="${FUZZ_SECONDS:-60}" -max_len=4096 -timeout=60 \
    -rss_limit_mb=2048 -malloc_limit_mb=256 -dict=fuzz/orb.dict -print_final_stats=1 \
    -artifact_prefix="build/fuzz/$target-" "$found" "fuzz/corpus/$target" \
    "build/fuzz/seeds/$target" >"$log" 2>&1 || {
    cat "$log"
    exit 1
  }
  grep -aE 'DONE|executed_units' "$log"
done
