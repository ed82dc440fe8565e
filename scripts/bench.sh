#!/usr/bin/env bash
# Measures this machine in one run: kernels, whole models, sampler and tokenizer, threads. Figures go
# to build/bench/*.json, tables and plots to build/bench/report.md and beside it.
#   bench.sh               everything; the synthetic models are made when they are not there (8 GB)
#   bench.sh PART...       some of kernels, text, token, shared, models
#   MODEL=path bench.sh    that model file only
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh all
cmake --preset release >/dev/null
cmake --build --preset release --target orb kernels_bench text_bench token_bench
orb=build/release/bin/orb
results=build/bench
mkdir -p "$results"

say() {
  printf '\n[%3d:%02d] %s\n' $((SECONDS / 60)) $((SECONDS % 60)) "$*"
}

# Runs a program of Google Benchmark: its name without _bench, and options.
measure() {
  say "$1"
  "build/release/bin/$1_bench" --benchmark_out_format=json --benchmark_out="$results/$1.json" \
    "${@:2}" 2>&1 | grep -vE '^\*\*\*|^-+$'
}

# Measures a model from end to end: name of the figures, file, tokens to generate at each context. The
# longest prompt comes last, so that the first context is nearly there.
measure_model() {
  say "model $1"
  "$orb" bench "$2" --json --prompt-tokens 16,64,256,512,2048 --contexts 2000,8000,16 \
    --gen-tokens "$3" >"$results/$1.json"
}

# The same, but shorter, on the vector tiers by themselves, those that the machine has: name and file.
measure_tiers() {
  local tier
  for tier in avx2 avx512; do
    "$orb" bench --help | grep -q "here: .*$tier" || continue
    say "model $1, tier $tier"
    "$orb" bench "$2" --isa "$tier" --json --prompt-tokens 512 --contexts 16 \
      --gen-tokens 16 >"$results/$1-$tier.json"
  done
}

# The same beside another process: name and file.
measure_shared() {
  say "shared machine $1"
  bench/shared_machine.py "$orb" "$2" >"$results/shared-$1.json"
}

# Makes a synthetic model of a name unless it is there; false when the disk is too full for it.
synthesize() {
  local file=$results/$1.orb gigabytes=$2 free
  [[ -f $file ]] && return
  free=$(df --output=avail -B1G "$results" | tail -n 1)
  if ((free < gigabytes + 1)); then
    echo "bench: model $1 left out: it takes $gigabytes GB, $free are free in $results" >&2
    return 1
  fi
  "$orb" synth "$file" "${@:3}"
}

measure_models() {
  measure_model demo models/demo.orb 64
  if synthesize 1b 1 --shape 1b; then measure_model 1b "$results/1b.orb" 32; fi
  if synthesize 4b-q4_k 3 --shape 4b; then
    measure_model 4b-q4_k "$results/4b-q4_k.orb" 16
    measure_tiers 4b-q4_k "$results/4b-q4_k.orb"
  fi
  if synthesize 4b-q8_0 5 --shape 4b --type q8_0; then
    measure_model 4b-q8_0 "$results/4b-q8_0.orb" 16
  fi
}

if [[ -n ${MODEL:-} ]]; then
  "$orb" bench "$MODEL"
  exit
fi
parts=("$@")
[[ ${#parts[@]} -gt 0 ]] || parts=(kernels text token shared models)
for part in "${parts[@]}"; do
  case $part in
    kernels) measure kernels --benchmark_min_time=0.1 ;;
    text) measure text --benchmark_min_time=0.1 ;;
    token) measure token --benchmark_min_time=2 ;;
    shared)
      measure_shared demo models/demo.orb
      if synthesize 4b-q4_k 3 --shape 4b; then
        measure_shared 4b-q4_k "$results/4b-q4_k.orb"
      fi
      ;;
    models) measure_models ;;
    *)
      echo "bench: expected kernels, text, token, shared or models, found $part" >&2
      exit 2
      ;;
  esac
done
bench/report.py "$results"
say "$results/report.md"
echo
cat "$results/report.md"
