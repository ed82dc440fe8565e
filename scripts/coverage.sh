#!/usr/bin/env bash
# Says how much of the reader and the tokenizer the tests and the fuzz corpora reach: lines, and
# branches, which are the two outcomes of every condition in the sources (&& and || have one for each
# side); the edges that compilers add for exceptions are none. What was not reached is marked in
# build/coverage/report/index.html.
#   coverage.sh --missed    prints the lines and branches that were not reached
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh coverage
cmake --preset coverage >/dev/null
cmake --build --preset coverage
root=build/coverage
rm -rf "$root/profiles"
export LLVM_PROFILE_FILE=$PWD/$root/profiles/%m.profraw OMP_NUM_THREADS=2

run() {
  "$@" >"$root/run.log" 2>&1 || {
    cat "$root/run.log"
    exit 1
  }
}
for program in format_test tokenizer_test tokenizer_long_text_test hostile_test; do
  run "$root/bin/$program"
done
for target in container sections text; do
  run "$root/bin/${target}_fuzz" "fuzz/corpus/$target"
done

merged=$root/all.profdata
llvm-profdata merge -o "$merged" "$root"/profiles/*.profraw
programs=("$root"/bin/{format_test,tokenizer_test,tokenizer_long_text_test,hostile_test})
programs+=("$root"/bin/{container,sections,text}_fuzz)
others='(tests|fuzz|tools|examples|include)/|src/(compat|model|plugin|quant)/'
options=(-instr-profile="$merged" -ignore-filename-regex="$others" "${programs[0]}")
for program in "${programs[@]:1}"; do options+=("-object=$program"); done

llvm-cov show "${options[@]}" -format=html -output-dir="$root/report" -show-branches=count
if [[ ${1:-} == --missed ]]; then
  llvm-cov show "${options[@]}" -use-color=0 -show-branches=count |
    grep -E '\.(cpp|h):$|^ +[0-9]+\| +0\||Branch .*: 0[],]' || true
fi
llvm-cov report "${options[@]}" -use-color=0 -show-region-summary=false
