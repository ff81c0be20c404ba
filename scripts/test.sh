#!/usr/bin/env bash
# The whole test suite, as CI runs it on a fresh Debian 12 machine:
#   1. plain build, warnings as errors, benchmarks built, every test;
#   2. the same under AddressSanitizer and UndefinedBehaviorSanitizer;
#   3. the test programs that carry the ctest label "tsan", alone, under
#      ThreadSanitizer (skipped when no test has the label);
#   4. the fuzz programs of tests/fuzz (ctest label "fuzz"), built with clang-14
#      and run briefly each over their corpus (skipped, and said so, where
#      clang-14 or its libFuzzer runtime is missing);
#   5. Windows x64: the dependencies built from Debian's sources with
#      MinGW-w64 (cached in build/ci-win-deps), the project cross-built, and
#      its ctest suite run under Wine, headless (skipped, and said so, where
#      MinGW-w64 or Wine is missing, or QORVARLOK_WINDOWS=0).
# Build directories: build/ci-plain, build/ci-asan, build/ci-tsan, build/ci-fuzz,
# build/ci-win-deps, build/ci-win.
# A build that fails stops the script; failing tests are counted and the run
# goes on to the next stage, so one run shows every failure. Exits non-zero
# if anything failed.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
JOBS="${JOBS:-2}"
TEST_TIMEOUT="${QORVARLOK_TEST_TIMEOUT:-300}"

WINDOWS="${QORVARLOK_WINDOWS:-1}"
if [ "$WINDOWS" = 1 ]; then
  bash "$ROOT/scripts/install-deps.sh" --windows
else
  bash "$ROOT/scripts/install-deps.sh"
fi

step() { printf '\n==== %s\n' "$*"; }

FAILED_STAGES=()
SKIPPED_STAGES=()

configure() {
  local dir="$1"
  shift
  cmake -S "$ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQORVARLOK_WERROR=ON "$@"
}

run_tests() {
  local dir="$1"
  shift
  # Tests run one at a time: several share machine-wide resources.
  ctest --test-dir "$dir" --output-on-failure --timeout "$TEST_TIMEOUT" "$@"
}

# The target names of the test programs that carry a label; each program is
# named after its target.
programs_with_label() {
  local dir="$1" label="$2"
  ctest --test-dir "$dir" -L "$label" --show-only=json-v1 |
    tr -d '\n ' | grep -o '"command":\["[^"]*"' | sed 's/.*\["//; s/"$//; s|.*/||' | sort -u
}

step "plain build (warnings as errors)"
PLAIN="$ROOT/build/ci-plain"
configure "$PLAIN" -DQORVARLOK_SANITIZE=OFF -DQORVARLOK_TSAN=OFF -DQORVARLOK_BUILD_BENCH=ON
cmake --build "$PLAIN" -j"$JOBS"
step "plain tests"
run_tests "$PLAIN" || FAILED_STAGES+=("plain")

step "AddressSanitizer + UndefinedBehaviorSanitizer build"
ASAN="$ROOT/build/ci-asan"
configure "$ASAN" -DQORVARLOK_SANITIZE=ON -DQORVARLOK_TSAN=OFF -DQORVARLOK_BUILD_BENCH=OFF
cmake --build "$ASAN" -j"$JOBS"
step "sanitized tests"
ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}" \
UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}" \
  run_tests "$ASAN" || FAILED_STAGES+=("asan+ubsan")

mapfile -t TSAN_PROGRAMS < <(programs_with_label "$PLAIN" tsan)
if [ "${#TSAN_PROGRAMS[@]}" -eq 0 ]; then
  step "no test carries the label tsan: ThreadSanitizer run skipped"
else
  step "ThreadSanitizer build of ${TSAN_PROGRAMS[*]}"
  TSAN="$ROOT/build/ci-tsan"
  configure "$TSAN" -DQORVARLOK_SANITIZE=OFF -DQORVARLOK_TSAN=ON -DQORVARLOK_BUILD_BENCH=OFF
  cmake --build "$TSAN" -j"$JOBS" --target "${TSAN_PROGRAMS[@]}"
  step "ThreadSanitizer tests"
  TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1}" run_tests "$TSAN" -L tsan || FAILED_STAGES+=("tsan")
fi

fuzzer_runtime() {
  command -v clang-14 >/dev/null 2>&1 && command -v clang++-14 >/dev/null 2>&1 &&
    [ -f "$(clang++-14 -print-runtime-dir)/libclang_rt.fuzzer-x86_64.a" ]
}

if fuzzer_runtime; then
  step "fuzz build (clang-14, libFuzzer; only the fuzz programs)"
  FUZZ="$ROOT/build/ci-fuzz"
  CC=clang-14 CXX=clang++-14 configure "$FUZZ" -DQORVARLOK_FUZZ=ON -DQORVARLOK_SANITIZE=OFF -DQORVARLOK_TSAN=OFF \
    -DQORVARLOK_BUILD_BENCH=OFF
  cmake --build "$FUZZ" -j"$JOBS" --target qorvarlok_fuzzers
  step "fuzz runs"
  run_tests "$FUZZ" -L fuzz || FAILED_STAGES+=("fuzz")
else
  step "fuzz stage SKIPPED: clang-14 or its libFuzzer runtime is missing"
  SKIPPED_STAGES+=("fuzz")
fi

windows_tools() {
  [ "$WINDOWS" = 1 ] && command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1 &&
    command -v wine >/dev/null 2>&1
}

if windows_tools; then
  step "Windows x64 build (MinGW-w64; dependencies from Debian's sources, cached)"
  WIN_START=$SECONDS
  WIN_DEPS="$ROOT/build/ci-win-deps"
  bash "$ROOT/scripts/windows-deps.sh" "$WIN_DEPS"
  WIN="$ROOT/build/ci-win"
  # Release: static programs with debug information take minutes more to link.
  cmake -S "$ROOT" -B "$WIN" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64-x86_64.cmake" \
    -DQORVARLOK_WINDOWS_DEPS="$WIN_DEPS/prefix" -DCMAKE_BUILD_TYPE=Release -DQORVARLOK_WERROR=ON \
    -DQORVARLOK_BUILD_BENCH=OFF -DQORVARLOK_PYTHON=OFF
  cmake --build "$WIN" -j"$JOBS"
  step "tests under Wine (built in $((SECONDS - WIN_START)) s)"
  run_tests "$WIN" || FAILED_STAGES+=("windows")
  step "Windows stage took $((SECONDS - WIN_START)) s"
else
  step "Windows stage SKIPPED: MinGW-w64 or Wine is missing (or QORVARLOK_WINDOWS=0)"
  SKIPPED_STAGES+=("windows")
fi

if [ "${#FAILED_STAGES[@]}" -gt 0 ]; then
  step "tests failed in: ${FAILED_STAGES[*]}"
  exit 1
fi
if [ "${#SKIPPED_STAGES[@]}" -gt 0 ]; then
  step "the test runs that ran passed; NOT run: ${SKIPPED_STAGES[*]}"
else
  step "all test runs passed"
fi
