#!/usr/bin/env bash
# Stands between GCC and its linker (g++ -wrapper link_with_lld.sh): runs LLVM's in place of GNU's,
# which takes seconds to tens of seconds for a Windows program. Debian's cross-compiler knows no other
# way: it ignores -fuse-ld. What it passes for link-time optimisation is left out.
set -euo pipefail
shift # GCC's own front of the linker
arguments=()
while [[ $# -gt 0 ]]; do
  case $1 in
    -plugin) shift ;;
    -plugin-opt=*) ;;
    *) arguments+=("$1") ;;
  esac
  shift
done
exec ld.lld "${arguments[@]}"
