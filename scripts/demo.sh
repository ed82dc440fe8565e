#!/usr/bin/env bash
# Builds the tool and opens a conversation with the demo model; without a terminal it asks the
# built-in questions, tells how fast the answers came, and ends.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh
# Tests and benchmarks, which need more packages, join when they are asked for.
[[ -f build/release/build.ninja ]] ||
  cmake --preset release -DORB_BUILD_TESTS=OFF -DORB_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build --preset release --target orb
if [[ -t 0 ]]; then
  exec build/release/bin/orb chat models/demo.orb
fi
{
  cat models/demo/questions.txt
  echo /stats
} | build/release/bin/orb chat models/demo.orb
