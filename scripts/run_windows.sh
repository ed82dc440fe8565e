#!/usr/bin/env bash
# Runs a Windows program under wine: run_windows.sh PROGRAM ARGUMENTS...
# The emulated system has a folder of its own in build/ (or WINEPREFIX), made when it is missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export WINEPREFIX=${WINEPREFIX:-$root/build/wine}
# No messages of its own, no windows, nothing to download.
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree=;mshtml=;winemenubuilder.exe=}
unset DISPLAY

if [[ ! -e $WINEPREFIX/system.reg ]]; then
  mkdir -p "$WINEPREFIX"
  (
    flock 9
    [[ -e $WINEPREFIX/system.reg ]] || wine wineboot --init </dev/null >/dev/null 2>&1
  ) 9>"$WINEPREFIX.lock"
fi
exec wine "$@"
