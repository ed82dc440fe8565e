#!/usr/bin/env bash
# Runs a Windows program under wine: run_windows.sh PROGRAM ARGUMENTS...
# The emulated system has a folder of its own in build/ (or WINEPREFIX), made when it is missing. It
# stays up for two hours; run_windows.sh --stop ends it before.
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
}

# Runs a program that does nothing for two hours, or until the system ends; whoever has the file
# `up` locked is that one.
keep_up() {
  setsid flock --close "$up" bash -c \
    'wine cmd < <(exec timeout 7200 tail -f /dev/null --pid=$$)' </dev/null >/dev/null 2>&1 9>&- &
}

# The first program starts the system's services, which keep its streams open as long as they run: a
# caller that reads them to their end would wait. So the first program is one that nobody reads.
start() {
  exec 9>"$WINEPREFIX.lock"
  flock 9
  if flock --nonblock "$up" true; then
    [[ -e $WINEPREFIX/system.reg ]] || wine wineboot --init </dev/null >/dev/null 2>&1 9>&-
    keep_up
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
