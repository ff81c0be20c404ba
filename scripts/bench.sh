#!/usr/bin/env bash
# Every benchmark on the machine at hand, and the page that shows them:
#   1. the benchmark extras (gnuplot, python3) through install-deps.sh --bench;
#   2. a RelWithDebInfo build of the benchmarks and varlok-sim in build/bench;
#   3. symbol files, tag lists, shared memory, TCP with libmodbus as the peer,
#      the TCP load test; raw results in build/bench/results;
#   4. docs/benchmarks.md with every figure beside its floor and target, the
#      machine, its load and the date, and docs/benchmarks.png (round trip
#      against tag count: shared memory, TCP, libmodbus).
# Figures count only on an idle machine: the page quotes the load average
# before and after. Not part of the test command. About 5 to 10 minutes.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
JOBS="${JOBS:-2}"
BUILD="$(realpath -m "${QORVARLOK_BENCH_BUILD:-$ROOT/build/bench}")"  # another build directory for a rerun
RESULTS="$BUILD/results"

bash "$ROOT/scripts/install-deps.sh" --bench

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQORVARLOK_BUILD_BENCH=ON \
  -DQORVARLOK_SANITIZE=OFF -DQORVARLOK_TSAN=OFF >/dev/null
cmake --build "$BUILD" -j"$JOBS" --target varlok-sim bench_shm bench_symbols bench_tags bench_tcp bench_tcp_load
# The Python module's benchmark, where the build has the module.
PYBENCH="$BUILD/bench/python/bench_python.sh"
cmake --build "$BUILD" -j"$JOBS" --target bench_python_cppread 2>/dev/null || PYBENCH=""

rm -rf "$RESULTS"
mkdir -p "$RESULTS"
cat /proc/loadavg >"$RESULTS/load_before"
date -u '+%Y-%m-%d %H:%M UTC' >"$RESULTS/date"
cd "$RESULTS"  # the benchmarks' log files land here

run() {  # name, then the command; its output is kept beside the results
  local name="$1"
  shift
  echo "==== $name"
  "$@" | tee "$RESULTS/$name.txt"
}
gbench() {  # name, program, benchmark arguments
  local name="$1" program="$2"
  shift 2
  run "$name" "$program" --benchmark_out="$RESULTS/$name.json" --benchmark_out_format=json "$@"
}

gbench symbols "$BUILD/bench/symbols/bench_symbols"
gbench tags "$BUILD/bench/tags/bench_tags"
gbench shm "$BUILD/bench/shm/bench_shm"
# The hand-off with both ends (client and varlok-sim, which inherits the
# affinity) on one processor, against the run above on two.
run shm_onecpu taskset -c 0 "$BUILD/bench/shm/bench_shm" --benchmark_out="$RESULTS/shm_onecpu.json" \
  --benchmark_out_format=json --benchmark_filter='BM_BareSlotRoundTrip|BM_ClearDataSwapArea|BM_ReadTagList/(1|1000)/|BM_WriteTagList/(1|1000)/'
run tcp "$BUILD/bench/tcp/bench_tcp" --csv "$RESULTS/tcp.csv"
run tcp_load "$BUILD/bench/tcp/bench_tcp_load" --clients 64 --seconds 10
if [ -n "$PYBENCH" ]; then run python sh "$PYBENCH"; else echo "no Python module in this build" >"$RESULTS/python.txt"; fi

cat /proc/loadavg >"$RESULTS/load_after"
python3 "$ROOT/scripts/bench_page.py" "$RESULTS" "$ROOT/docs"
(cd "$ROOT" && gnuplot docs/benchmarks.gp)
echo "bench: wrote docs/benchmarks.md and docs/benchmarks.png"
