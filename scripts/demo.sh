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
cmake --build "$BUILD" -j"$JOBS" --target varlok varlok-sim

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

echo
echo "== Against a running controller: varlok-sim with the demo task, through shared memory"
SIM="$BUILD/tools/varlok-sim/varlok-sim"
PARTITION="varlok-demo-$$"
READY="$BUILD/varlok-sim.ready"
rm -f "$READY"
# --tcp 0: also serve over TCP, on a free port of the loopback address (it prints which).
"$SIM" --symbols "$DEMO_XML" --partition "$PARTITION" --demo --tcp 0 >"$READY" 2>"$BUILD/varlok-sim.log" &
SIM_PID=$!
# Stop the simulator we started, by its pid, whatever happens below.
stop_sim() {
  if kill -0 "$SIM_PID" 2>/dev/null; then
    kill -TERM "$SIM_PID"
    wait "$SIM_PID" || true
  fi
}
trap stop_sim EXIT
for _ in $(seq 1 100); do
  grep -q '^ready' "$READY" 2>/dev/null && break
  kill -0 "$SIM_PID" 2>/dev/null || { cat "$BUILD/varlok-sim.log" >&2; exit 1; }
  sleep 0.1
done
grep -q '^ready' "$READY" || { echo "varlok-sim did not become ready" >&2; exit 1; }
TCP_ADDRESS="$(sed -n 's/^tcp //p' "$READY")"
echo "varlok-sim serves partition $PARTITION and TCP on $TCP_ADDRESS (pid $SIM_PID)"

LIVE=(--symbols "$DEMO_XML" --partition "$PARTITION")
show read "${LIVE[@]}" App.GVL.counter App.GVL.sine App.GVL.toggle App.GVL.message App.GVL.counters
show write "${LIVE[@]}" "App.GVL.message=hello from the demo" "App.GVL.counters[2]=42"
show read "${LIVE[@]}" App.GVL.message "App.GVL.counters[2]" App.GVL.counters
show watch "${LIVE[@]}" --interval 250 --count 12 App.GVL.counter App.GVL.sine App.GVL.toggle

echo
echo "== The same controller over TCP ($TCP_ADDRESS)"
REMOTE=(--symbols "$DEMO_XML" --host "$TCP_ADDRESS")
show read "${REMOTE[@]}" App.GVL.counter App.GVL.message
show write "${REMOTE[@]}" "App.GVL.message=hello over TCP"
show read "${REMOTE[@]}" App.GVL.message
show read "${LIVE[@]}" App.GVL.message

stop_sim
trap - EXIT
echo
echo "varlok-sim stopped; its log: $BUILD/varlok-sim.log"
echo
echo "Log of this demo: $BUILD/varloklogs/varlok/Varlok.log"
