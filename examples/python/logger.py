"""Logs tags of a controller to CSV every 100 ms (0 reads: until Ctrl-C).
   VARLOK_PARTITION=<partition> python3 logger.py Demo.xml out.csv 50 App.GVL.counter App.GVL.sine"""
import csv
import sys
import time

import qorvarlok


def log(symbols, out, reads, names):
    with qorvarlok.Controller(symbols) as plc, plc.tag_list(names) as tags, open(out, "w", newline="") as f:
        writer = csv.writer(f)
        writer.writerow(["time"] + names)
        due, done = time.monotonic(), 0
        while reads == 0 or done < reads:
            writer.writerow(["%.3f" % time.time()] + tags.read())
            done, due = done + 1, due + 0.1
            time.sleep(max(0.0, due - time.monotonic()))


if __name__ == "__main__":
    try:
        log(sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:])
    except (qorvarlok.VarlokError, KeyboardInterrupt) as e:
        sys.exit(str(e) or 0)
