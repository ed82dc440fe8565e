#!/usr/bin/env bash
# Runs a Windows program under wine: run_windows.sh PROGRAM ARGUMENTS...
# The emulated system has a folder of its own in build/ (or WINEPREFIX), made when it is missing. It
# stays up for ten minutes; run_windows.sh --stop ends it before.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export WINEPREFIX=${WINEPREFIX:-$root/build/wine}
# No messages of its own, nothing to download, no menus of the desktop.
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree=;mshtml=;winemenubuilder.exe=;winedbg.exe=}
unset DISPLAY
mkdir -p "$(dirname "$WINEPREFIX")"
up=$WINEPREFIX.up

stop() {
  [[ ! -e $up ]] || WINEPREFIX=$WINEPREFIX wineserver -k || true
  rm -f "$up"
}

# The first program starts the system's services, which keep its streams open as long as they run: a
# caller that reads them to their end would wait. So the first program is one that nobody reads.
start() {
  exec 9>"$WINEPREFIX.lock"
  flock 9
  if [[ ! -e $up ]] || ! kill -0 "$(<"$up")" 2>/dev/null; then
    [[ -e $WINEPREFIX/system.reg ]] || wine wineboot --init </dev/null >/dev/null 2>&1 9>&-
    (sleep 600 | setsid wine cmd) </dev/null >/dev/null 2>&1 9>&- &
    echo $! >"$up"
    wine cmd /c exit </dev/null >/dev/null 2>&1 9>&-
  fi
  exec 9>&-
}

if [[ ${1:-} == --stop ]]; then
  stop
  exit
fi
start
exec wine "$@"
