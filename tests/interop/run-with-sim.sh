#!/usr/bin/env bash
# Runs a command against a varlok-sim of its own: starts the simulator on a
# partition unique to this run, waits until it serves, runs the command with
# VARLOK_PARTITION set, and stops the simulator by its pid whatever happens.
# With --expect TEXT (repeatable) the command's output must also hold each
# TEXT as a whole line.
#   run-with-sim.sh SIM SYMBOLS [--demo] [--expect TEXT]... -- COMMAND...
set -uo pipefail

SIM="$1"
SYMBOLS="$2"
shift 2
SIM_ARGS=()
EXPECT=()
while [ "$#" -gt 0 ] && [ "$1" != "--" ]; do
  case "$1" in
    --demo) SIM_ARGS+=(--demo) ;;
    --expect) EXPECT+=("$2"); shift ;;
    *) echo "run-with-sim: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done
shift

WORK="$(mktemp -d)"
PARTITION="qv-interop-$$"
"$SIM" --symbols "$SYMBOLS" --partition "$PARTITION" --log-level warn "${SIM_ARGS[@]}" >"$WORK/ready" 2>"$WORK/sim.log" &
SIM_PID=$!
finish() {
  if kill -0 "$SIM_PID" 2>/dev/null; then
    kill -TERM "$SIM_PID"
    wait "$SIM_PID" 2>/dev/null
  fi
  rm -rf "$WORK"
}
trap finish EXIT

for _ in $(seq 1 100); do
  grep -q '^ready' "$WORK/ready" 2>/dev/null && break
  if ! kill -0 "$SIM_PID" 2>/dev/null; then
    echo "run-with-sim: varlok-sim ended before it served:" >&2
    cat "$WORK/sim.log" >&2
    exit 1
  fi
  sleep 0.1
done
grep -q '^ready' "$WORK/ready" || { echo "run-with-sim: varlok-sim did not become ready" >&2; exit 1; }

VARLOK_PARTITION="$PARTITION" "$@" >"$WORK/out" 2>&1
CODE=$?
cat "$WORK/out"
for text in "${EXPECT[@]}"; do
  if ! grep -qxF -- "$text" "$WORK/out"; then
    echo "run-with-sim: the output lacks the line: $text"
    CODE=1
  fi
done
exit "$CODE"
