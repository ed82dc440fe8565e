#!/usr/bin/env bash
# Runs clang-tidy over the library and the tools with the compile commands of build/release. A
# source that passed is left out until it, a header, the settings or its command change.
set -euo pipefail
cd "$(dirname "$0")/.."

version=14
tool=$(command -v "clang-tidy-$version" || command -v clang-tidy || true)
if [[ -z $tool ]] || ! "$tool" --version | grep -q "version $version\."; then
  echo "check_tidy: skipped, needs clang-tidy $version"
  exit 0
fi
commands=build/release/compile_commands.json
if [[ ! -f $commands ]]; then
  echo "check_tidy: configure first: cmake --preset release" >&2
  exit 1
fi

passed=build/tidy
mkdir -p "$passed"
# One command a source, though tests compile some of the library's in: the first, the library's own.
# (Clang can't read GCC's precompiled headers, which theirs have.)
python3 - "$commands" >"$passed/compile_commands.json" <<'EOF'
import json
import sys

first = {}
for command in json.load(open(sys.argv[1])):
    first.setdefault(command["file"], command)
json.dump(list(first.values()), sys.stdout, indent=0)
EOF
common=$(git ls-files -z -- '*.h' .clang-tidy | xargs -0 cat -- "$commands" | sha256sum)

# The sources that are compiled, and for several that are compiled at a time the file that includes
# them. Those of the tests are left out.
compiled() {
  sed -nE 's/^ *"file": "(.*)"$/\1/p' "$commands" | sort -u |
    grep -E "^$PWD/((src|tools)/|build/release/(src|tools)/.*/unity_)"
}

pending=()
while IFS= read -r source; do
  included=$(sed -nE 's/^#include "(.*\.cpp)"$/\1/p' "$source")
  key=$({ echo "$common $source"; cat -- "$source" $included; } | sha256sum | cut -d' ' -f1)
  [[ -e $passed/$key ]] || pending+=("$source" "$passed/$key")
done < <(compiled)

# Two words a process: the source, and the file that records its passing.
if [[ ${#pending[@]} -gt 0 ]]; then
  printf '%s\0' "${pending[@]}" |
    xargs -0 -n 2 -P "${JOBS:-$(nproc)}" sh -c \
      '"$0" --quiet -p build/tidy "$1" 2>/dev/null && touch "$2"' "$tool"
fi
echo "check_tidy: $((${#pending[@]} / 2)) checked, the rest unchanged"
