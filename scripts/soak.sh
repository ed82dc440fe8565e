#!/usr/bin/env bash
# Plays SOAK_TURNS turns (10000) on the demo model through the plug-in; SEED chooses others.
# SOAK_PRESET=asan plays them under the address sanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${SOAK_PRESET:-release}

scripts/bootstrap.sh all
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target abi_soak
# Short answers and a small context: what matters here is how often, not how long.
export QWEN35_MAX_TOKENS=${QWEN35_MAX_TOKENS:-4} QWEN35_MAX_CONTEXT=${QWEN35_MAX_CONTEXT:-128}
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-1}
# Without much memory that is kept back after it was freed, growth shows.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=8}
exec "build/$preset/bin/abi_soak" "build/$preset/bin/liborb_runtime_qwen35.so" models/demo.orb \
  "${SOAK_TURNS:-10000}" "${SEED:-1}"
