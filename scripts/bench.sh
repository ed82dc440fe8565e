#!/usr/bin/env bash
# Measures this machine: the kernels, the demo model, and one of 700 MB that no cache holds.
# MODEL=path measures that file only. The figures are in build/bench/*.json as well.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh all
cmake --preset release >/dev/null
cmake --build --preset release --target orb kernels_bench
orb=build/release/bin/orb
mkdir -p build/bench

if [[ -n ${MODEL:-} ]]; then
  models=("$MODEL")
else
  build/release/bin/kernels_bench --benchmark_min_time=0.2 --benchmark_out_format=json \
    --benchmark_out=build/bench/kernels.json
  large=build/bench/synthetic-1b.orb
  [[ -f $large ]] || "$orb" synth "$large" --shape 1b
  models=(models/demo.orb "$large")
fi
for model in "${models[@]}"; do
  echo
  echo "$model"
  "$orb" bench "$model"
  "$orb" bench "$model" --json >"build/bench/$(basename "$model" .orb).json"
done
