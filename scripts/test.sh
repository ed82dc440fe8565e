#!/usr/bin/env bash
# Every check of the project, in the order of what fails soonest. Each part says how long it took;
# the end repeats what CTest had to say.
set -euo pipefail
cd "$(dirname "$0")/.."
export JOBS=${JOBS:-$(nproc)}
export CMAKE_BUILD_PARALLEL_LEVEL=$JOBS CTEST_PARALLEL_LEVEL=$JOBS

summary=()

# part NAME COMMAND...
part() {
  local name=$1 start=$SECONDS
  shift
  echo "== $name"
  if ! "$@"; then
    echo "== $name FAILED after $((SECONDS - start)) s"
    exit 1
  fi
  summary+=("$(printf '%-22s %4d s' "$name" $((SECONDS - start)))")
}

build() {
  cmake --preset "$1" >/dev/null && cmake --build --preset "$1"
}

run_tests() {
  local log=build/$1/ctest.log
  ctest --preset "$1" >"$log" 2>&1 || {
    cat "$log"
    return 1
  }
  grep -E 'tests passed' "$log"
  # Where a program is one test, its cases are told as well.
  local cases
  cases=$(sed -nE 's/^\[==========\] ([0-9]+) tests? from .* ran.*/\1/p' \
    "build/$1/Testing/Temporary/LastTest.log" | awk '{ n += $1 } END { print n + 0 }')
  closing+=("$1: $(grep -E 'tests passed' "$log") ($cases cases counted inside them)")
}
closing=()

part "packages" scripts/bootstrap.sh all
part "format" scripts/check_format.sh
part "release build" build release
part "release tests" run_tests release
part "lint" scripts/check_tidy.sh
part "asan-ubsan build" build asan-ubsan
part "asan-ubsan tests" run_tests asan-ubsan

echo
printf '%s\n' "${summary[@]}" "${closing[@]}"
