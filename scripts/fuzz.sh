#!/usr/bin/env bash
# Runs every fuzz program of tests/fuzz by hand, SECONDS each (default 300):
# builds build/fuzz with clang-14 and runs ctest -L fuzz there.
#   bash scripts/fuzz.sh 600
# What a run finds stays in the build tree: new inputs in
# build/fuzz/tests/fuzz/work/<name>/, a crash as
# build/fuzz/tests/fuzz/fuzz-<name>-crash-*. Once its cause is fixed, copy the
# crash into tests/fuzz/corpus/<name>/ under a name that says what it caught,
# so that every run executes it again.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
JOBS="${JOBS:-2}"
SECS="${1:-300}"
case "$SECS" in
  '' | *[!0-9]*) echo "usage: scripts/fuzz.sh [SECONDS]" >&2; exit 2 ;;
esac
if ! command -v clang++-14 >/dev/null 2>&1 || ! command -v clang-14 >/dev/null 2>&1; then
  echo "fuzz.sh: clang-14 is missing; scripts/install-deps.sh installs it" >&2
  exit 2
fi

BUILD="$ROOT/build/fuzz"
CC=clang-14 CXX=clang++-14 cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQORVARLOK_WERROR=ON \
  -DQORVARLOK_FUZZ=ON -DQORVARLOK_FUZZ_SECONDS="$SECS" -DQORVARLOK_BUILD_BENCH=OFF
cmake --build "$BUILD" -j"$JOBS" --target qorvarlok_fuzzers
ctest --test-dir "$BUILD" -L fuzz --output-on-failure
