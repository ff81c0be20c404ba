#!/usr/bin/env bash
# Runs a Windows program under Wine, headless, for ctest and test discovery:
#   wine-run.sh PREFIX PROGRAM.exe [ARGS...]
# One Wine prefix per build tree, made at the first use (under a lock, as
# discovery may run programs in parallel); a persistent wineserver (ending 60 s
# after its last client) so that each program does not pay Wine's start-up.
# A crash fails the program instead of opening a debugger.
set -euo pipefail
export WINEPREFIX="$1"
shift
export WINEDEBUG=-all WINEARCH=win64
export WINEDLLOVERRIDES="winedbg.exe=d;mscoree=d;mshtml=d;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY
if [ ! -f "$WINEPREFIX/.qorvarlok-ready" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  exec 9>"$WINEPREFIX.lock"
  flock 9
  if [ ! -f "$WINEPREFIX/.qorvarlok-ready" ]; then
    wineboot -i >/dev/null 2>&1 || true
    wineserver -w
    touch "$WINEPREFIX/.qorvarlok-ready"
  fi
  exec 9>&-
fi
# Wine's own services (services.exe and the rest) start with the first
# program of a fresh wineserver and inherit its standard output: started by
# wineboot, away from ours, so that whoever reads this program's output sees
# it end when the program does, not when the wineserver does.
wineserver -p60 </dev/null >/dev/null 2>&1 || true
wine wineboot </dev/null >/dev/null 2>&1 || true
exec wine "$@"
