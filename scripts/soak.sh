#!/usr/bin/env bash
# Plays SOAK_TURNS turns (10000) on the demo model through the plug-in; SEED chooses others.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh all
cmake --preset release >/dev/null
cmake --build --preset release --target abi_soak
# Short answers and a small context: what matters here is how often, not how long.
export QWEN35_MAX_TOKENS=${QWEN35_MAX_TOKENS:-4} QWEN35_MAX_CONTEXT=${QWEN35_MAX_CONTEXT:-128}
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-1}
exec build/release/bin/abi_soak build/release/bin/liborb_runtime_qwen35.so models/demo.orb \
  "${SOAK_TURNS:-10000}" "${SEED:-1}"
