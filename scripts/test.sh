#!/usr/bin/env bash
# Every check of the project, in the order of what fails soonest. Each part says how long it took;
# the end repeats what CTest had to say. `test.sh native` leaves the Windows build and its tests out.
set -euo pipefail
cd "$(dirname "$0")/.."
windows=(windows)
tests=release-and-windows
if [[ ${1:-} == native ]]; then
  windows=()
  tests=release
fi
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

# All at a time: each takes one processor.
configure() {
  local preset pid status=0 pids=()
  for preset; do
    cmake --preset "$preset" >/dev/null &
    pids+=($!)
  done
  for pid in "${pids[@]}"; do wait "$pid" || status=1; done
  return "$status"
}

# How many entries of CTest there were, and how many cases they say that they have run; those of the
# Windows build apart.
count_tests() {
  awk '
    $2 == "Test:" { windows = $3 ~ /^windows\./; entries[windows] += 1; cases[windows] += 1 }
    # Of GoogleTest and of unittest: the entry is one of them.
    /^\[==========\] [0-9]+ tests? from .* ran/ { cases[windows] += $2 - 1 }
    /^Ran [0-9]+ tests? in / { cases[windows] += $2 - 1 }
    END {
      printf "native %d entries, %d cases", entries[0], cases[0]
      if (entries[1]) printf "; under wine %d entries, %d cases", entries[1], cases[1]
    }' "$1"
}

# run_tests PRESET FOLDER
run_tests() {
  local log=build/$2/ctest.log
  ctest --preset "$1" >"$log" 2>&1 || {
    cat "$log"
    return 1
  }
  grep -E 'tests passed' "$log"
  closing+=("$1: $(grep -E 'tests passed' "$log")"
    "  $(count_tests "build/$2/Testing/Temporary/LastTest.log")")
}
closing=()
trap 'scripts/run_windows.sh --stop' EXIT

part "packages" scripts/bootstrap.sh all
part "format" scripts/check_format.sh
part "configuring" configure release "${windows[@]}" asan-ubsan
part "release build" cmake --build --preset release
if [[ ${#windows[@]} -gt 0 ]]; then part "windows build" cmake --build --preset windows; fi
part "tests" run_tests "$tests" release
part "lint" scripts/check_tidy.sh
part "asan-ubsan build" cmake --build --preset asan-ubsan
part "asan-ubsan tests" run_tests asan-ubsan asan-ubsan

echo
printf '%s\n' "${summary[@]}" "$(printf '%-22s %4d s' "in all" "$SECONDS")" "${closing[@]}"
