"""What the Python layer adds to a read, in one run:

  C++          ZelVarlok::ReadTagList (array form), timed in C++ by _cppread
  generated    ZelVarlok.ReadTagList_INTERFACE_1 from Python: the SWIG wrapper,
               the interpreter lock released and taken again, the values copied
               into one bytes object
  TagList      TagList.read(): the above plus the values decoded into a list
  decode       the decoding alone, on bytes already read (no exchange, so
               nearly free of the load's noise)

for lists of 1 and 1 000 DInt tags, against varlok-sim in another process,
on one connection and the same lists, in interleaved blocks so that a change
of load hits all three alike. Prints the medians and 99th percentiles in
microseconds, the load average, and the Python layer's overhead: TagList's
median over C++'s. The machine is shared: figures under load are provisional.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

import qorvarlok
import _cppread

SIZES = (1, 1000)


def write_project(path, tags):
    nodes = "\n".join('<Node name="d%d" type="T_DINT" access="ReadWrite"/>' % i for i in range(tags))
    with open(path, "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0" encoding="utf-8"?><Symbolconfiguration><Header/><TypeList>'
                '<TypeSimple name="T_DINT" size="4" iecname="DINT" typeclass="DInt"/></TypeList>'
                '<NodeList><Node name="App"><Node name="Many">\n%s\n</Node></Node></NodeList>'
                '</Symbolconfiguration>\n' % nodes)


def start_sim(sim, symbols, partition):
    process = subprocess.Popen([sim, "--symbols", symbols, "--partition", partition, "--log-level", "warn"],
                               stdout=subprocess.PIPE, text=True)
    if not process.stdout.readline().startswith("ready"):
        process.terminate()
        sys.exit("varlok-sim did not become ready")
    return process


def stop_sim(process, partition):
    process.terminate()  # by the pid we started
    process.wait(10)
    for name in ("Global_MUTEX_CONNECT", "Global_MUTEX_NOTIFY", "Global_MUTEX_DATASWAP"):
        try:
            os.unlink("/dev/shm/%s.%s" % (partition, name))
        except FileNotFoundError:
            pass


def percentile(samples, p):
    ordered = sorted(samples)
    return ordered[int(p * (len(ordered) - 1))]


def timed(call, iterations):
    samples = []
    for _ in range(iterations):
        start = time.perf_counter_ns()
        call()
        samples.append((time.perf_counter_ns() - start) / 1000.0)
    return samples


def measure(plc, names, rounds, block):
    with plc.tag_list(names) as tags:
        varlok, handle = plc.varlok, tags._shared
        raw = lambda: varlok.ReadTagList_INTERFACE_1(handle)  # noqa: E731
        assert len(tags.read()) == len(names) and raw()[0] == 0
        data = raw()[1]
        samples = {"C++": [], "generated": [], "TagList": [], "decode": []}
        for _ in range(rounds):
            samples["C++"] += _cppread.read_times(int(varlok.this), int(handle), block)
            samples["generated"] += timed(raw, block)
            samples["TagList"] += timed(tags.read, block)
            samples["decode"] += timed(lambda: tags._codec.unpack(data), block)
    return samples


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sim", required=True, help="the varlok-sim program")
    parser.add_argument("--rounds", type=int, default=20, help="interleaved blocks of each kind")
    parser.add_argument("--block", type=int, default=100, help="reads per block")
    args = parser.parse_args()

    partition = "qv-pybench-%d" % os.getpid()
    with tempfile.TemporaryDirectory() as work:
        symbols = os.path.join(work, "many.xml")
        write_project(symbols, max(SIZES))
        sim = start_sim(args.sim, symbols, partition)
        try:
            with qorvarlok.Controller(symbols, partition=partition) as plc:
                results = {n: measure(plc, ["App.Many.d%d" % i for i in range(n)], args.rounds, args.block)
                           for n in SIZES}
        finally:
            stop_sim(sim, partition)

    print("load average %s (1, 5, 15 min); %d reads of each kind and size"
          % (", ".join("%.2f" % x for x in os.getloadavg()), args.rounds * args.block))
    print("%-6s %-10s %10s %10s" % ("DInt", "read", "median_us", "p99_us"))
    for n, samples in results.items():
        for kind, values in samples.items():
            print("%-6d %-10s %10.1f %10.1f" % (n, kind, statistics.median(values), percentile(values, 0.99)))
        cpp, py = statistics.median(samples["C++"]), statistics.median(samples["TagList"])
        print("%-6d Python layer over C++: %+.1f us median, x%.2f" % (n, py - cpp, py / cpp))


if __name__ == "__main__":
    main()
