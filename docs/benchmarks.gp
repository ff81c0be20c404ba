# Written by scripts/bench_page.py; run from the repository's root.
set terminal pngcairo size 900,560 font ",11"
set output "docs/benchmarks.png"
set title "ReadTagList round trip, median (2026-11-23 22:17 UTC, load 1.00 1.04 1.76)"
set xlabel "DInt tags in the list"
set ylabel "microseconds"
set logscale xy
set grid
set key top left
plot "docs/benchmarks.dat" using 1:2 with linespoints title "shared memory", \
     "" using 1:3 with linespoints title "TCP (loopback)", \
     "" using 1:4 with linespoints title "libmodbus (loopback, 125 registers a request)"
