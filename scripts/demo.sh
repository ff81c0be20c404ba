#!/usr/bin/env bash
# The demo on a fresh Debian 12 machine: installs what is missing, builds,
# and shows what the library does with the demo project.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
JOBS="${JOBS:-2}"
BUILD="$ROOT/build/demo"
DEMO_XML="$ROOT/examples/demo/Demo.xml"

bash "$ROOT/scripts/install-deps.sh"

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQORVARLOK_BUILD_TESTS=OFF -DQORVARLOK_BUILD_BENCH=OFF
cmake --build "$BUILD" -j"$JOBS" --target varlok

VARLOK="$BUILD/tools/varlok/varlok"
# The library logs under ./varloklogs/ of the current directory.
cd "$BUILD"

show() {
  printf '\n$ varlok %s\n' "$*"
  "$VARLOK" "$@"
}

echo
echo "== Offline: the demo project's symbol file ($DEMO_XML)"
show version
printf '\n$ varlok browse %s | head -n 40\n' "$DEMO_XML"
"$VARLOK" browse "$DEMO_XML" | head -n 40 || true
echo "   ... ($("$VARLOK" browse "$DEMO_XML" | wc -l) lines in all)"
show browse "$DEMO_XML" App.GVL.motor
printf '\n$ varlok browse --flat %s | head -n 15\n' "$DEMO_XML"
"$VARLOK" browse --flat "$DEMO_XML" | head -n 15 || true

echo
echo "== Error codes and their texts"
show describe 0 0x10000403 0x10000104 0x12000007 1
printf '\n$ varlok browse /nonexistent.xml   (a bad file: exit code and text)\n'
"$VARLOK" browse /nonexistent.xml || echo "exit code $?"

# == Against a running controller
# The shared-memory demo goes here: start the simulator on $DEMO_XML in the
# background and remember its pid, then read, write and read back, and
# watch for a few seconds with $VARLOK; stop the simulator by that pid.

echo
echo "Log of this demo: $BUILD/varloklogs/varlok/Varlok.log"
